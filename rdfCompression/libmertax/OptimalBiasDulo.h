// COptimalBiasDulo: lossless codec for arrays of unsigned integers of 1, 2, 4 or 8 bytes.
//
// Data is cut into segments of at most 4096 bytes (8192 for 16-bit data that fits in a byte when
// word-size reduction is on). Each segment is coded against a bias: every nibble that equals the
// bias's nibble in its plane costs a bit or less in a map, the others go into a nibble stream.
// A compressed buffer is the plain concatenation of self-delimiting segments.
//
// The codec owns no memory; every buffer belongs to the caller (on several threads it takes
// scratch space for the coded segments while it works). One object must be used by one thread at
// a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "MertaxApi.h"

class MERTAX_API COptimalBiasDulo
{
public:
    // The 32-bit little-endian word that opens every compressed segment, unpacked field by field.
    // FromWord/ToWord convert explicitly so that the stored bit positions never depend on how the
    // compiler lays out bit-fields.
    struct SegmentHeader
    {
        uint32_t stdSegSize : 1;      // 1: the segment holds exactly STD_SEGSIZE bytes
        uint32_t mapCode : 1;         // COMPRESSED_MC or NOT_COMPRESSED_MC (stored raw)
        uint32_t byteMode : 2;        // element type, see ByteMode
        uint32_t algVersion : 2;      // 1: a bias field is present
        uint32_t subadd : 1;          // 1: a segmin field is present and added back
        uint32_t nonMatchLength : 12; // bytes of the non-match nibble stream
        uint32_t compSegSize : 13;    // bytes of the whole segment, padding included

        static SegmentHeader FromWord(uint32_t word);
        uint32_t ToWord() const;
    };

    enum ByteMode : uint8_t
    {
        BYTE_MODE = 0,
        SHORT_MODE = 1,
        U32B_MODE = 2,
        U64B_MODE = 3
    };

    static constexpr size_t MIN_COMPRESS_LEVEL = 0;
    static constexpr size_t MAX_COMPRESS_LEVEL = 9;
    static constexpr size_t TOF_SINO_CMP_LEVL_URGE = 0;
    static constexpr size_t SINGLES_CMP_LEVL_URGE = 9;
    static constexpr size_t HINT_OPTBIAS_COMP_LEVEL = 1;
    static constexpr size_t DEFAULT_COMPRESS_LEVEL = 4;
    static constexpr size_t FIND_OPTBIAS_COMP_LEVEL = 8;
    static constexpr size_t SEGMIN_COMPRESS_LEVEL = 9;
    static constexpr uint16_t STD_SEGSIZE = 4096;
    static constexpr bool NOT_COMPRESSED_MC = false;
    static constexpr bool COMPRESSED_MC = true;
    static constexpr size_t WORST_CASE_COMP_MAP_SIZE = 7281;
    static constexpr size_t TRUE_BIAS_MIN_ELEMS = 4;
    // Inputs smaller than this are coded on the calling thread whatever the thread count.
    static constexpr size_t MIN_PARALLEL_BYTES = 64 * 1024;

    COptimalBiasDulo();

    void SetCompressLevel(const size_t& compressLevel);
    void SetReduceWordSize();
    void ClearReduceWordSize();
    // Only 2 has an effect: byte segments are then widened to 16-bit cells on expansion.
    void SetInflateWordSize(const size_t& inflateWordSize);
    // Diagnostics on standard output: from 2 traces, above 10 hex dumps of every segment (each dump
    // lowers the level by one, so dumps stop by themselves at 10).
    void SetDebugLevel(size_t debugLevel);
    size_t GetDebugLevel() const;

    // Output size that suffices to compress uncSize bytes of cells of cellSize bytes.
    size_t GetWorstCaseCmpBufSize(const size_t& cellSize, const size_t& uncSize);
    // Compresses uncSize bytes of cells of cellSize (1, 2, 4 or 8) bytes into cmpBuff, whose
    // capacity is bufSize; returns the compressed bytes written, or 0 (with a message on standard
    // error) on failure. Give it GetWorstCaseCmpBufSize(cellSize, uncSize) bytes. The bias hint
    // and segment count of the compression level carry over from one call to the next.
    size_t Compress(void* pUncData, const size_t& uncSize, const size_t& cellSize, uint8_t* cmpBuff,
                    const size_t& bufSize);
    // Compress with the segments coded on up to `threads` threads of the library's worker pool.
    // The bytes, and the hint carried to the next call, are those of one thread. Inputs under
    // MIN_PARALLEL_BYTES, and any coded with diagnostics on, stay on the calling thread.
    size_t CompressOnThreads(void* pUncData, const size_t& uncSize, const size_t& cellSize, uint8_t* cmpBuff,
                             const size_t& bufSize, unsigned threads);

    // Expands every segment of the cmpDataSize bytes at pCmpData into pDecmpBuff; returns the bytes
    // written. A damaged segment, or one that would not fit in decmpBuffSize, stops the expansion
    // with a message on standard output and a short count.
    size_t Decompress(const uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                      const size_t decmpBuffSize);
    // The same, the segments decoded on up to `threads` threads of the pool (the calling thread's
    // alone under the same conditions as CompressOnThreads). What lies in pDecmpBuff past the
    // count returned is undefined.
    size_t DecompressOnThreads(const uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                               const size_t decmpBuffSize, unsigned threads);
    // Expands whole segments while they fit in desiredSize bytes; *cmpConsumed receives the
    // compressed bytes used, so a caller can continue from there.
    size_t Decompress(const uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff,
                      const size_t desiredSize, size_t* cmpConsumed);
    // The same two forms as first declared, with a non-const input; programs built against that
    // declaration link to these. The input is only read.
    size_t Decompress(uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff, const size_t decmpBuffSize);
    size_t Decompress(uint8_t* pCmpData, const size_t cmpDataSize, void* pDecmpBuff, const size_t desiredSize,
                      size_t* cmpConsumed);

private:
    // Bytes of the segment at pSeg (whose first 8 bytes are readable) once expanded, taking
    // widening into account.
    size_t ExpandedSegmentSize(const uint8_t* pSeg) const;
    // Expands the segLength-byte segment at pCmpData; the output must have room for
    // ExpandedSegmentSize bytes. Returns the bytes written, 0 for a damaged segment.
    size_t DecompressSegment(const uint8_t* pCmpData, size_t segLength, uint8_t* pDecmpData);
    // Decodes a segment of T values into cells of TCell (16-bit cells for a byte segment that is
    // widened); returns the segment's size in bytes of T.
    template <typename T, typename TCell = T>
    size_t Inflate(const uint8_t* pCmpData, size_t segLength, uint8_t* pDecmpData);
    // Dumps `size` bytes of pData; the title names pShownAddress instead where the bytes shown are a
    // copy of what lies there.
    void HexDump(const std::string& info, const uint8_t* pData, size_t size, const void* pShownAddress = nullptr);

    // Bytes of the next segment of the input at pUnc, of which bytesToDo remain.
    size_t NextSegmentBytes(const uint8_t* pUnc, size_t bytesToDo, const size_t& cellSize) const;
    // Whether segments may be enlarged to 2 * STD_SEGSIZE bytes of 16-bit cells that all fit in a
    // byte (word-size reduction).
    bool MayEnlargeSegments(const size_t& cellSize) const { return cellSize == 2 && m_reduceWordSize; }
    // Whether every 16-bit cell of the `bytes` bytes at p fits in a byte.
    static bool ShortsFitInBytes(const uint8_t* p, size_t bytes);
    // Bytes of a segment when bytesToDo remain and the next 2 * STD_SEGSIZE of them (or all that
    // remain) make an enlarged segment, or not.
    static size_t SegmentBytes(size_t bytesToDo, bool enlarged)
    {
        const size_t most = enlarged ? 2 * size_t(STD_SEGSIZE) : STD_SEGSIZE;
        return bytesToDo < most ? bytesToDo : most;
    }
    // Codes one segment with the level's choice of segmin and bias; 0 on failure.
    size_t CompressSegment(void* pUncData, const uint16_t& segSize, const size_t& cellSize, uint8_t* pCmpBuff);
    template <typename T>
    size_t LevelCompress(uint8_t* pUncData, const uint16_t& segSize, uint8_t* pCmpBuff);
    // The segment minimum to subtract, or 0 for none.
    template <typename T>
    T GetTrueMinForEncode(const uint8_t* pData, const size_t& elems);
    // Replays the map and non-match stream of the segLength-byte compressed segment at pCmpData
    // and derives from them a bias for the segments to come; false when there is none to learn.
    template <typename T>
    bool GetBiasHint(const uint8_t* pCmpData, size_t segLength, T* biasHint);

    // Segment encoder. pUncData holds segSize bytes of T, already reduced by segmin; the stored
    // fallback adds segmin back into it. pCmpBuff must hold the worst case for segSize bytes;
    // nothing is written past the stored form's length rounded up to 4, or the header's fields.
    template <typename T>
    size_t Deflate(uint8_t* pUncData, const uint16_t& segSize, T segmin, const T& bias, uint8_t* pCmpBuff);
    // Writes the header word and the segSize, segmin and bias fields that the values call for;
    // returns the header's length, 0 for a segment that is too large.
    template <typename T>
    size_t EncodeHeader(const uint16_t& segSize, T segmin, const T& bias, uint8_t* pCmpBuff);
    // Checks the writer's segment size limit, with its message.
    bool SegmentSizeAllowed(uint16_t segSize) const;
    // Number of leading nibble planes in which every element equals the bias (at most all but
    // the last plane).
    template <typename T>
    unsigned CountSkippedPlanes(const uint8_t* pUncData, uint16_t segSize, T bias) const;

    friend class COptimalBiasDuloTestPeer;
    friend class CParallelSegments;

    bool m_reduceWordSize;
    size_t m_inflateWordSize;
    size_t m_debugCompression;
    size_t m_compressLevel;
    uint64_t m_biasHint;
    size_t m_segsProcessed;
};
