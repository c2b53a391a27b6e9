/* The C interface, compiled as C against the installed header and library. Checks each cell size
 * and levels 0, 4 and 9 against the HDF5 filter's bytes for the same chunk, the size function, and
 * that damaged streams and short buffers give other results without writing outside buffers. */
#include <mertax.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#ifdef __linux__
#include <dirent.h>
#endif

/* The filter function, exported by the same library with C linkage; it needs no HDF5 to run. A
 * library built without HDF5 (MERTAX_CODEC_ONLY) is the codec alone. */
#ifndef MERTAX_CODEC_ONLY
size_t H5Z_filter_dulo(unsigned int flags, size_t cd_nelmts, const unsigned int cd_values[], size_t nbytes,
                       size_t* buf_size, void** buf);
#endif

static int failures = 0;

#define CHECK(cond, ...)                                                                                      \
    do {                                                                                                      \
        if (!(cond)) {                                                                                        \
            fprintf(stderr, "%s:%d: %s: ", __FILE__, __LINE__, #cond);                                        \
            fprintf(stderr, __VA_ARGS__);                                                                     \
            fputc('\n', stderr);                                                                              \
            ++failures;                                                                                       \
        }                                                                                                     \
    } while (0)

/* Low counts with rare large values, as detector data has them. */
static void FillCells(uint8_t* p, size_t bytes, size_t cellBytes, uint64_t seed)
{
    uint64_t state = seed * 6364136223846793005ull + 1442695040888963407ull;
    for (size_t i = 0; i < bytes; i += cellBytes) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        uint64_t v = (state >> 33) % 7 == 0 ? (state >> 40) % 5 : 0;
        if ((state >> 20) % 997 == 0)
            v = state;
        memcpy(p + i, &v, cellBytes);
    }
}

#ifndef MERTAX_CODEC_ONLY
/* The chunk as the filter stores it, in a malloc'ed buffer; *size receives its length. */
static uint8_t* FilterBytes(const uint8_t* cells, size_t bytes, size_t cellBytes, int level, size_t* size)
{
    const unsigned cd[6] = {1, 1, (unsigned)bytes, 0, (unsigned)cellBytes, (unsigned)level};
    void* buf = malloc(bytes);
    memcpy(buf, cells, bytes);
    size_t bufSize = bytes;
    *size = H5Z_filter_dulo(0, 6, cd, bytes, &bufSize, &buf);
    return buf;
}
#endif

#ifdef __linux__
static int ThreadCount(void)
{
    DIR* tasks = opendir("/proc/self/task");
    int count = 0;
    for (struct dirent* entry; tasks != NULL && (entry = readdir(tasks)) != NULL;)
        count += entry->d_name[0] != '.';
    if (tasks != NULL)
        closedir(tasks);
    return count;
}

/* Two threads give one thread's bytes, so only the threads the process has show that a count
 * above one reached the pool, which starts its workers on the first call that needs them. */
static void CheckThreadsReachThePool(void)
{
    const size_t bytes = 30 * 4096;
    uint8_t* cells = malloc(bytes);
    uint8_t* out = malloc(bytes);
    const size_t bound = mertax_compress_bound(2, bytes);
    uint8_t* cmp = malloc(bound);
    FillCells(cells, bytes, 2, 9);
    const size_t cmpSize = mertax_compress(cells, bytes, 2, 4, cmp, bound);
    const int before = ThreadCount();
    CHECK(mertax_decompress_mt(cmp, cmpSize, 2, out, bytes, 1) == bytes && ThreadCount() == before, "one thread");
    CHECK(mertax_decompress_mt(cmp, cmpSize, 2, out, bytes, 2) == bytes && ThreadCount() == before + 1, "two threads");
    free(cmp);
    free(out);
    free(cells);
}
#endif

static void CheckRoundTrip(size_t cellBytes, int level, size_t bytes)
{
    uint8_t* cells = malloc(bytes);
    FillCells(cells, bytes, cellBytes, bytes + cellBytes);
    const size_t bound = mertax_compress_bound(cellBytes, bytes);
    uint8_t* cmp = malloc(bound);
    const size_t cmpSize = mertax_compress(cells, bytes, cellBytes, level, cmp, bound);
    CHECK(cmpSize > 0 && cmpSize <= bound, "cell %zu level %d: %zu of %zu", cellBytes, level, cmpSize, bound);

#ifndef MERTAX_CODEC_ONLY
    size_t filterSize = 0;
    uint8_t* filter = FilterBytes(cells, bytes, cellBytes, level, &filterSize);
    CHECK(filterSize == cmpSize && memcmp(filter, cmp, cmpSize) == 0, "cell %zu level %d: not the filter's bytes",
          cellBytes, level);
    free(filter);
#endif

    /* Exactly the compressed size suffices; one byte less fails without writing. */
    uint8_t* exact = malloc(cmpSize);
    CHECK(mertax_compress(cells, bytes, cellBytes, level, exact, cmpSize) == cmpSize, "exact capacity");
    CHECK(memcmp(exact, cmp, cmpSize) == 0, "exact capacity bytes");
    /* On threads of the pool: the same bytes, into a buffer of the bound or of exactly the size. */
    CHECK(mertax_compress_mt(cells, bytes, cellBytes, level, exact, cmpSize, 3) == cmpSize, "threads, exact");
    CHECK(memcmp(exact, cmp, cmpSize) == 0, "threads, bytes of cell %zu level %d", cellBytes, level);
    free(exact);
    /* The byte past the capacity stays as it was, also without a sanitizer. */
    uint8_t* small = malloc(cmpSize);
    memset(small, 0xA5, cmpSize);
    CHECK(mertax_compress(cells, bytes, cellBytes, level, small, cmpSize - 1) == 0, "capacity one short");
    CHECK(mertax_compress_mt(cells, bytes, cellBytes, level, small, cmpSize - 1, 2) == 0, "threads, one short");
    CHECK(small[cmpSize - 1] == 0xA5, "written past the capacity");
    free(small);

    CHECK(mertax_decompressed_size(cmp, cmpSize, cellBytes) == bytes, "size of cell %zu level %d", cellBytes, level);
    uint8_t* out = malloc(bytes);
    CHECK(mertax_decompress(cmp, cmpSize, cellBytes, out, bytes) == bytes, "expand cell %zu level %d", cellBytes,
          level);
    CHECK(memcmp(out, cells, bytes) == 0, "cells of cell %zu level %d", cellBytes, level);
    memset(out, 0, bytes);
    CHECK(mertax_decompress_mt(cmp, cmpSize, cellBytes, out, bytes, 4) == bytes && memcmp(out, cells, bytes) == 0,
          "expand on threads, cell %zu level %d", cellBytes, level);

    /* Damage: cut short, a wrong length field, output one byte short, extra bytes after the stream. */
    CHECK(mertax_decompress(cmp, cmpSize - 4, cellBytes, out, bytes) != bytes, "truncated stream");
    CHECK(mertax_decompressed_size(cmp, cmpSize - 4, cellBytes) == 0, "size of truncated stream");
    uint8_t* bad = malloc(cmpSize);
    memcpy(bad, cmp, cmpSize);
    bad[3] ^= 0x80;
    CHECK(mertax_decompress(bad, cmpSize, cellBytes, out, bytes) != bytes, "length field flipped");
    free(bad);
    uint8_t* shortOut = malloc(bytes - 1);
    CHECK(mertax_decompress(cmp, cmpSize, cellBytes, shortOut, bytes - 1) == 0, "output one short");
    CHECK(strstr(mertax_last_error(), "the data expands to ") != NULL, "reason: %s", mertax_last_error());
    free(shortOut);
    uint8_t* longer = calloc(cmpSize + 8, 1);
    memcpy(longer, cmp, cmpSize);
    CHECK(mertax_decompress(longer, cmpSize + 8, cellBytes, out, bytes) == 0, "bytes after the stream");
    CHECK(strstr(mertax_last_error(), "runs past the data") != NULL, "reason: %s", mertax_last_error());
    CHECK(mertax_decompressed_size(longer, cmpSize + 8, cellBytes) == 0, "size with bytes after the stream");
    free(longer);
    /* Cells of another width: the size and the expansion agree in refusing them. */
    CHECK(mertax_decompressed_size(cmp, cmpSize, 3) == 0 &&
              strstr(mertax_last_error(), "cell size must be 1, 2, 4 or 8 bytes, not 3") != NULL,
          "reason: %s", mertax_last_error());
    const size_t other = cellBytes == 8 ? 4 : 8;
    CHECK(mertax_decompressed_size(cmp, cmpSize, other) == 0, "size for %zu-byte cells", other);
    CHECK(strstr(mertax_last_error(), "-bit cells, not") != NULL, "reason: %s", mertax_last_error());
    CHECK(mertax_decompress(cmp, cmpSize, cellBytes, out, bytes) == bytes && mertax_last_error()[0] == '\0',
          "a success clears the reason");
    free(out);
    free(cmp);
    free(cells);
}

int main(void)
{
    const size_t cellSizes[] = {1, 2, 4, 8};
    const int levels[] = {0, 4, 9};
#ifdef __linux__
    CheckThreadsReachThePool(); /* first: no call before it has started the pool */
#endif
    for (size_t c = 0; c < 4; ++c)
        for (size_t l = 0; l < 3; ++l) {
            CheckRoundTrip(cellSizes[c], levels[l], 3 * 4096 + 8 * 125);
            CheckRoundTrip(cellSizes[c], levels[l], 30 * 4096 + 8 * 125); /* enough for threads */
            CheckRoundTrip(cellSizes[c], levels[l], 40);
        }

    /* Refusals: 0, and the reason in mertax_last_error(). */
#define REFUSED(call, reason) CHECK((call) == 0 && strstr(mertax_last_error(), reason) != NULL, "%s", mertax_last_error())
    uint8_t cells[64] = {0}, cmp[256];
    REFUSED(mertax_compress(cells, 48, 3, 4, cmp, sizeof cmp), "cell size must be 1, 2, 4 or 8 bytes, not 3");
    REFUSED(mertax_compress(cells, 63, 2, 4, cmp, sizeof cmp), "63 bytes are not a whole, non-zero number of 2-byte");
    REFUSED(mertax_compress(cells, 0, 1, 4, cmp, sizeof cmp), "0 bytes are not a whole, non-zero number");
    REFUSED(mertax_compress(cells, sizeof cells, 1, 10, cmp, sizeof cmp), "level must be 0 to 9, not 10");
    REFUSED(mertax_compress(cells, sizeof cells, 1, -1, cmp, sizeof cmp), "level must be 0 to 9, not -1");
    REFUSED(mertax_compress(NULL, sizeof cells, 1, 4, cmp, sizeof cmp), "a buffer is NULL");
    REFUSED(mertax_compress(cells, sizeof cells, 1, 4, NULL, sizeof cmp), "a buffer is NULL");
    REFUSED(mertax_decompress(NULL, sizeof cmp, 1, cells, sizeof cells), "a buffer is NULL");
    REFUSED(mertax_decompress(cmp, sizeof cmp, 1, NULL, sizeof cells), "a buffer is NULL");
    REFUSED(mertax_decompressed_size(NULL, sizeof cmp, 1), "a buffer is NULL");
    REFUSED(mertax_decompress(cmp, sizeof cmp, 1, cells, 0), "the destination is empty");
    REFUSED(mertax_compress_bound(3, 64), "cell size must be 1, 2, 4 or 8");
    CHECK(mertax_compress_bound(8, SIZE_MAX - 100) == 0, "a bound that would wrap");
    CHECK(mertax_compress_bound(1, (size_t)1 << 40) > (size_t)1 << 40, "a bound past 64 MiB is not capped");
    CHECK(strlen(mertax_version()) >= 5, "version %s", mertax_version());
    if (failures == 0)
        printf("C interface %s: all checks passed\n", mertax_version());
    return failures == 0 ? 0 : 1;
}
