/* Parallel HDF5 (the MPI build) writing through the plugin: every rank creates the filtered
 * dataset collectively, writes its own slab of rows with a collective transfer (which HDF5
 * requires for filtered parallel writes), and then reads the whole dataset back and checks it.
 * Written in C, so that it also checks that the plugin's header is usable from C. */
#include "MERTAX_Filter.h"

#include <hdf5.h>
#include <mpi.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

enum { ROWS_PER_RANK = 40, COLS = 3000 };

static uint16_t Value(hsize_t row, hsize_t col)
{
    /* Low counts with some structure, different on every row. */
    return (uint16_t)(((row * 7919u + col * 104729u) >> 5) % 5u == 0 ? (row + col) % 300u : 0u);
}

static int Check(int ok, const char* what, int rank)
{
    if (!ok)
        fprintf(stderr, "rank %d: %s failed\n", rank, what);
    return ok;
}

int main(int argc, char** argv)
{
    int rank = 0, size = 1, ok = 1;
    MPI_Init(&argc, &argv);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    const char* path = argc > 1 ? argv[1] : "mpi_write_test.h5";

    hid_t fapl = H5Pcreate(H5P_FILE_ACCESS);
    H5Pset_fapl_mpio(fapl, MPI_COMM_WORLD, MPI_INFO_NULL);
    hid_t file = H5Fcreate(path, H5F_ACC_TRUNC, H5P_DEFAULT, fapl);
    ok &= Check(file >= 0, "H5Fcreate", rank);

    const hsize_t dims[2] = {(hsize_t)size * ROWS_PER_RANK, COLS};
    const hsize_t chunk[2] = {ROWS_PER_RANK / 2, 1000};
    /* cellBytes 0: the plugin takes the datatype's size. */
    const unsigned cd[6] = {1, 1, 0, 0, 0, 4};
    hid_t dcpl = H5Pcreate(H5P_DATASET_CREATE);
    H5Pset_chunk(dcpl, 2, chunk);
    H5Pset_filter(dcpl, ZV_H5_MERTAX_FILTER_ID, H5Z_FLAG_MANDATORY, 6, cd);
    hid_t space = H5Screate_simple(2, dims, NULL);
    hid_t dset = H5Dcreate2(file, "counts", H5T_NATIVE_UINT16, space, H5P_DEFAULT, dcpl, H5P_DEFAULT);
    ok &= Check(dset >= 0, "H5Dcreate2", rank);

    const hsize_t start[2] = {(hsize_t)rank * ROWS_PER_RANK, 0};
    const hsize_t count[2] = {ROWS_PER_RANK, COLS};
    uint16_t* slab = malloc(sizeof(uint16_t) * ROWS_PER_RANK * COLS);
    for (hsize_t r = 0; r < ROWS_PER_RANK; ++r)
        for (hsize_t c = 0; c < COLS; ++c)
            slab[r * COLS + c] = Value(start[0] + r, c);
    hid_t fileSpace = H5Dget_space(dset);
    H5Sselect_hyperslab(fileSpace, H5S_SELECT_SET, start, NULL, count, NULL);
    hid_t memSpace = H5Screate_simple(2, count, NULL);
    hid_t dxpl = H5Pcreate(H5P_DATASET_XFER);
    H5Pset_dxpl_mpio(dxpl, H5FD_MPIO_COLLECTIVE);
    ok &= Check(H5Dwrite(dset, H5T_NATIVE_UINT16, memSpace, fileSpace, dxpl, slab) >= 0, "H5Dwrite", rank);
    H5Dclose(dset);
    ok &= Check(H5Fclose(file) >= 0, "H5Fclose", rank);

    /* Every rank reads the whole dataset back. */
    file = H5Fopen(path, H5F_ACC_RDONLY, fapl);
    dset = H5Dopen2(file, "counts", H5P_DEFAULT);
    uint16_t* all = malloc(sizeof(uint16_t) * dims[0] * dims[1]);
    ok &= Check(H5Dread(dset, H5T_NATIVE_UINT16, H5S_ALL, H5S_ALL, dxpl, all) >= 0, "H5Dread", rank);
    for (hsize_t r = 0; ok && r < dims[0]; ++r)
        for (hsize_t c = 0; ok && c < dims[1]; ++c)
            ok &= Check(all[r * COLS + c] == Value(r, c), "comparison", rank);
    if (ok && H5Dget_storage_size(dset) >= dims[0] * dims[1] * sizeof(uint16_t) / 2)
        ok = Check(0, "compression", rank);

    H5Dclose(dset);
    H5Fclose(file);
    H5Pclose(dxpl);
    H5Pclose(fapl);
    H5Pclose(dcpl);
    H5Sclose(space);
    H5Sclose(fileSpace);
    H5Sclose(memSpace);
    free(slab);
    free(all);
    int allOk = 0;
    MPI_Allreduce(&ok, &allOk, 1, MPI_INT, MPI_LAND, MPI_COMM_WORLD);
    MPI_Finalize();
    return allOk ? 0 : 1;
}
