// Every public member of the codec class, taken by address with the type it was first declared
// with. Linked against the shared library alone: a member whose exported signature drifted from
// that declaration fails to link here, as it would in a program built against the declaration.
#include "OptimalBiasDulo.h"

#include <gtest/gtest.h>

namespace {

using Codec = COptimalBiasDulo;

TEST(DeclaredInterface, EveryPublicMemberLinksWithItsDeclaredType)
{
    void (Codec::*setCompressLevel)(const size_t&) = &Codec::SetCompressLevel;
    void (Codec::*setReduceWordSize)() = &Codec::SetReduceWordSize;
    void (Codec::*clearReduceWordSize)() = &Codec::ClearReduceWordSize;
    void (Codec::*setInflateWordSize)(const size_t&) = &Codec::SetInflateWordSize;
    size_t (Codec::*worstCase)(const size_t&, const size_t&) = &Codec::GetWorstCaseCmpBufSize;
    size_t (Codec::*compress)(void*, const size_t&, const size_t&, uint8_t*, const size_t&) = &Codec::Compress;
    size_t (Codec::*expand)(uint8_t*, const size_t, void*, const size_t) = &Codec::Decompress;
    size_t (Codec::*expandSome)(uint8_t*, const size_t, void*, const size_t, size_t*) = &Codec::Decompress;

    // Called through the pointers, so that the linker must resolve each one.
    Codec codec;
    (codec.*setCompressLevel)(Codec::SINGLES_CMP_LEVL_URGE);
    (codec.*setReduceWordSize)();
    (codec.*clearReduceWordSize)();
    (codec.*setInflateWordSize)(1);
    uint8_t cells[64] = {1, 2, 3};
    uint8_t cmp[128] = {};
    ASSERT_LE((codec.*worstCase)(1, sizeof cells), sizeof cmp);
    const size_t cmpSize = (codec.*compress)(cells, sizeof cells, 1, cmp, sizeof cmp);
    ASSERT_GT(cmpSize, 0u);
    uint8_t out[64] = {};
    EXPECT_EQ((codec.*expand)(cmp, cmpSize, out, sizeof out), sizeof out);
    size_t consumed = 0;
    EXPECT_EQ((codec.*expandSome)(cmp, cmpSize, out, sizeof out, &consumed), sizeof out);
    EXPECT_EQ(consumed, cmpSize);
    EXPECT_EQ(0, memcmp(out, cells, sizeof out));
}

} // namespace
