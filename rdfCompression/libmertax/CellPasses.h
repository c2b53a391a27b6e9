// The encoder's passes over a segment's cells before any plane is coded: the OR of every cell
// XOR the bias (which planes all match it, and whether 16-bit cells fit in bytes), and the row of
// one byte of every cell that two nibble planes are classified from. The portable forms work in
// registers of sixteen bytes with SSE2, the AVX2 forms in 32 (the OR, and rows of 16- and 32-bit
// cells), the AVX-512 forms in 64, a row's bytes by truncating moves. All give the same results;
// KernelDispatch chooses.
#pragma once

#include <cstddef>
#include <cstdint>

// The OR, over the `words` little-endian 64-bit words at p, of each word XOR `pattern`.
using OrOfWordsFn = uint64_t (*)(const uint8_t* p, size_t words, uint64_t pattern);

// Byte `byte` of each of the 64 * blocks little-endian cells of cellBytes (2, 4 or 8) at pCells,
// into pRow.
using ByteRowFn = void (*)(const uint8_t* pCells, size_t cellBytes, unsigned byte, size_t blocks, uint8_t* pRow);

struct CCellKernels
{
    OrOfWordsFn orOfWords;
    ByteRowFn byteRow;
};

uint64_t OrOfWordsPortable(const uint8_t* p, size_t words, uint64_t pattern);
void ByteRowPortable(const uint8_t* pCells, size_t cellBytes, unsigned byte, size_t blocks, uint8_t* pRow);
#if defined(__x86_64__)
uint64_t OrOfWordsAvx2(const uint8_t* p, size_t words, uint64_t pattern);
void ByteRowAvx2(const uint8_t* pCells, size_t cellBytes, unsigned byte, size_t blocks, uint8_t* pRow);
uint64_t OrOfWordsAvx512(const uint8_t* p, size_t words, uint64_t pattern);
void ByteRowAvx512(const uint8_t* pCells, size_t cellBytes, unsigned byte, size_t blocks, uint8_t* pRow);
#endif
