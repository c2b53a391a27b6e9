// The filter's parameter record and its client-data words, as stored in users' files.
#include "MERTAX_FilterData.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<unsigned int> Encoded(H5DefaultEncoder& encoder)
{
    const unsigned int* words = encoder.GetEncodedData();
    return std::vector<unsigned int>(words, words + encoder.GetEncodedLength());
}

TEST(FilterParameters, RecordEncodesToSixWordsAndBack)
{
    H5DefaultEncoder empty;
    EXPECT_EQ(Encoded(empty), (std::vector<unsigned int>{0, 1}));

    MERTAX_FilterData data;
    data.SetBufferSize(4000);
    data.SetCellBytes(2);
    data.SetCompressLevel(4);
    MERTAX_FilterConfig config;
    config.SetFilterData(data);
    const std::vector<unsigned int> words = Encoded(config);
    EXPECT_EQ(words, (std::vector<unsigned int>{1, 1, 4000, 0, 2, 4}));

    MERTAX_FilterConfig reader;
    ASSERT_EQ(reader.SetEncodedData(words.data(), unsigned(words.size())), 0);
    MERTAX_FilterData back;
    reader.GetFilterData(back);
    EXPECT_EQ(back.GetBufferSize(), 4000u);
    EXPECT_EQ(back.GetFlags(), 0u);
    EXPECT_EQ(back.GetCellBytes(), 2u);
    EXPECT_EQ(back.GetCompressLevel(), 4u);
}

TEST(FilterParameters, RejectedClientDataLeavesAHarmlessRecord)
{
    MERTAX_FilterConfig tooShort;
    const unsigned int one[] = {1};
    EXPECT_EQ(tooShort.SetEncodedData(one, 1), -1);
    EXPECT_EQ(tooShort.GetFilterVersion(), 0u);
    const unsigned int headerOnly[] = {3, 1};
    EXPECT_EQ(tooShort.SetEncodedData(headerOnly, 2), 0);
    EXPECT_EQ(tooShort.GetFilterVersion(), 3u);

    MERTAX_FilterConfig wrongEncoding;
    const unsigned int words[] = {1, 2, 4000, 0, 2, 4};
    EXPECT_EQ(wrongEncoding.SetEncodedData(words, 6), -1);
    EXPECT_EQ(wrongEncoding.GetFilterVersion(), 1u);
    EXPECT_EQ(wrongEncoding.GetEncodeVersion(), 2u);
    MERTAX_FilterData data;
    data.SetCellBytes(99);
    wrongEncoding.GetFilterData(data); // reads past the (empty) values: zeros
    EXPECT_EQ(data.GetCellBytes(), 0u);
    EXPECT_EQ(data.GetBufferSize(), 0u);
}

TEST(FilterParameters, FloatsTravelAsTheirBits)
{
    H5DefaultEncoder encoder;
    encoder.AppendValue(7u);
    encoder.AppendValue(1.5f);
    EXPECT_EQ(Encoded(encoder), (std::vector<unsigned int>{0, 1, 7, 0x3FC00000}));
    EXPECT_EQ(encoder.GetValue<float>(1), 1.5f);
    EXPECT_EQ(encoder.GetValue<unsigned int>(2), 0u); // one past the last
    EXPECT_EQ(encoder.GetValue<unsigned int>(5), 0u);
    EXPECT_EQ(encoder.GetNextValue<unsigned int>(), 7u);
    EXPECT_EQ(encoder.GetNextValue<float>(), 1.5f);
    EXPECT_EQ(encoder.GetNextValue<unsigned int>(), 0u);
}

} // namespace
