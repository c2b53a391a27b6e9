#include "FileReport.h"

#include "CliSupport.h"
#include "ExpansionFailure.h"
#include "Hdf5Handle.h"
#include "JsonWriter.h"
#include "SegmentReport.h"
#include "mertax.h"

#include <iomanip>
#include <iostream>
#include <numeric>
#include <sstream>

namespace {

constexpr H5Z_filter_t FILTER_ID = 32910;
const char* const CLIENT_DATA_NAMES[] = {"filter version", "encode version", "bufferSize",
                                         "flags",          "cellBytes",      "compressLevel"};

struct SChunk
{
    std::vector<hsize_t> offset;
    size_t storedBytes = 0;
    bool unfiltered = false; // stored without the filter (it was optional and failed)
    std::string damage;
    std::vector<SSegmentReport> segments;
};

struct SDataset
{
    std::string name;
    std::string type;
    std::vector<hsize_t> dims;
    std::vector<hsize_t> chunkDims;
    std::vector<unsigned> clientData;
    size_t rawBytes = 0;
    size_t storedBytes = 0;
    size_t chunkBytes = 0;
    std::vector<SChunk> chunks;
};

std::string TypeName(hid_t type)
{
    const size_t size = H5Tget_size(type);
    switch (H5Tget_class(type)) {
    case H5T_INTEGER:
        return (H5Tget_sign(type) == H5T_SGN_NONE ? "uint" : "int") + std::to_string(8 * size);
    case H5T_FLOAT:
        return "float" + std::to_string(8 * size);
    default:
        return std::to_string(size) + "-byte other";
    }
}

std::string Ratio(size_t raw, size_t stored)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << (stored == 0 ? 0.0 : double(raw) / double(stored));
    return text.str();
}

std::string Coordinates(const std::vector<hsize_t>& v)
{
    std::ostringstream text;
    text << '[';
    for (size_t i = 0; i < v.size(); ++i)
        text << (i ? ", " : "") << v[i];
    return text.str() + ']';
}

// The filter's position in the dataset's pipeline and its client data; false when it has none.
bool FindFilter(hid_t dcpl, unsigned& position, std::vector<unsigned>& clientData)
{
    const int count = H5Pget_nfilters(dcpl);
    for (int i = 0; i < count; ++i) {
        unsigned flags = 0;
        size_t words = 6;
        clientData.assign(6, 0);
        if (H5Pget_filter2(dcpl, unsigned(i), &flags, &words, clientData.data(), 0, nullptr, nullptr) == FILTER_ID) {
            clientData.resize(std::min<size_t>(words, 6));
            position = unsigned(i);
            return true;
        }
    }
    return false;
}

// Checks a chunk as the filter would expand it, and reads its segments.
void ExamineChunk(const std::vector<uint8_t>& bytes, const SDataset& d, SChunk& chunk)
{
    if (!ReportSegments(bytes.data(), bytes.size(), chunk.segments, chunk.damage))
        return;
    const size_t cellBytes = d.clientData.size() > 4 ? d.clientData[4] : 0;
    if (!IsCellSize(cellBytes) || d.chunkBytes == 0)
        return;
    std::vector<uint8_t> cells(d.chunkBytes);
    CQuietExpansion quiet;
    const size_t produced = mertax_decompress(bytes.data(), bytes.size(), cellBytes, cells.data(), cells.size());
    if (produced != cells.size())
        chunk.damage = DescribeExpansionShortfall(bytes.data(), bytes.size(), cellBytes, produced, cells.size());
}

SDataset Examine(hid_t file, const std::string& name, bool& usesFilter)
{
    SDataset d;
    d.name = name;
    CHid dataset(H5Dopen2(file, name.c_str(), H5P_DEFAULT), H5Dclose);
    CHid dcpl(H5Dget_create_plist(dataset), H5Pclose);
    CHid type(H5Dget_type(dataset), H5Tclose);
    CHid space(H5Dget_space(dataset), H5Sclose);
    unsigned position = 0;
    usesFilter = H5Pget_layout(dcpl) == H5D_CHUNKED && FindFilter(dcpl, position, d.clientData);
    if (!usesFilter)
        return d;
    d.type = TypeName(type);
    d.dims.resize(size_t(H5Sget_simple_extent_ndims(space)));
    H5Sget_simple_extent_dims(space, d.dims.data(), nullptr);
    d.chunkDims.resize(d.dims.size());
    H5Pget_chunk(dcpl, int(d.chunkDims.size()), d.chunkDims.data());
    const size_t typeSize = H5Tget_size(type);
    d.rawBytes = std::accumulate(d.dims.begin(), d.dims.end(), typeSize, std::multiplies<size_t>());
    d.chunkBytes = std::accumulate(d.chunkDims.begin(), d.chunkDims.end(), typeSize, std::multiplies<size_t>());
    d.storedBytes = H5Dget_storage_size(dataset);

    hsize_t count = 0;
    H5Dget_num_chunks(dataset, space, &count);
    for (hsize_t i = 0; i < count; ++i) {
        SChunk chunk;
        chunk.offset.resize(d.dims.size());
        unsigned mask = 0;
        haddr_t address = 0;
        hsize_t size = 0;
        H5Dget_chunk_info(dataset, space, i, chunk.offset.data(), &mask, &address, &size);
        chunk.storedBytes = size;
        chunk.unfiltered = (mask >> position) & 1;
        std::vector<uint8_t> bytes(size);
        uint32_t readMask = 0;
        if (H5Dread_chunk(dataset, H5P_DEFAULT, chunk.offset.data(), &readMask, bytes.data()) < 0)
            chunk.damage = "cannot be read from the file";
        else if (!chunk.unfiltered)
            ExamineChunk(bytes, d, chunk);
        d.chunks.push_back(std::move(chunk));
    }
    return d;
}

herr_t CollectDataset(hid_t, const char* name, const H5O_info_t* info, void* pNames)
{
    if (info->type == H5O_TYPE_DATASET)
        static_cast<std::vector<std::string>*>(pNames)->push_back(std::string("/") + name);
    return 0;
}

struct STotals
{
    size_t segments = 0, compressed = 0, fieldBytes = 0, streamBytes = 0, mapBytes = 0, storedData = 0;
};

STotals SumSegments(const SDataset& d)
{
    STotals t;
    for (const SChunk& c : d.chunks)
        for (const SSegmentReport& s : c.segments) {
            ++t.segments;
            t.compressed += s.compressed;
            t.fieldBytes += s.fieldBytes;
            t.streamBytes += s.streamBytes;
            t.mapBytes += s.mapBytes;
            t.storedData += s.compressed ? 0 : s.length - s.fieldBytes;
        }
    return t;
}

void PrintText(const SDataset& d, const SInspectOptions& o)
{
    std::cout << d.name << ": " << d.type << " " << Coordinates(d.dims) << ", chunks " << Coordinates(d.chunkDims)
              << "\n  filter 32910:";
    for (size_t i = 0; i < d.clientData.size(); ++i) {
        std::cout << (i ? ", " : " ") << CLIENT_DATA_NAMES[i] << " ";
        if (i == 3)
            std::cout << "0x" << std::hex << std::setw(8) << std::setfill('0') << d.clientData[i] << std::dec
                      << std::setfill(' ');
        else
            std::cout << d.clientData[i];
    }
    std::cout << "\n  raw " << d.rawBytes << " bytes, stored " << d.storedBytes << " bytes, ratio "
              << Ratio(d.rawBytes, d.storedBytes) << ", " << d.chunks.size() << " chunks\n";
    for (const SChunk& c : d.chunks) {
        if (o.chunks)
            std::cout << "  chunk " << Coordinates(c.offset) << ": " << c.storedBytes << " bytes, ratio "
                      << Ratio(d.chunkBytes, c.storedBytes) << (c.unfiltered ? ", stored without the filter" : "")
                      << "\n";
        if (!c.damage.empty())
            std::cout << "  chunk " << Coordinates(c.offset) << " is damaged: " << c.damage << "\n";
        if (!o.segments)
            continue;
        for (const SSegmentReport& s : c.segments) {
            std::cout << "    segment at " << s.offset << ": " << (s.compressed ? "compressed" : "stored") << ", "
                      << CellName(s.cellBits) << ", " << s.segSize << " bytes";
            if (s.compressed)
                std::cout << ", bias 0x" << std::hex << s.bias << ", segmin 0x" << s.segmin << std::dec << ", "
                          << s.codedPlanes << " of " << s.planes << " planes coded, stream " << s.streamBytes
                          << ", map " << s.mapBytes;
            std::cout << ", " << s.length << " bytes in all\n";
        }
    }
    if (o.segments) {
        const STotals t = SumSegments(d);
        std::cout << "  segments: " << t.segments << " (" << t.compressed << " compressed, " << t.segments - t.compressed
                  << " stored); headers and fields " << t.fieldBytes << " bytes, non-match streams "
                  << t.streamBytes << " bytes, maps " << t.mapBytes << " bytes, stored data " << t.storedData
                  << " bytes\n";
    }
}

void ArrayField(CJsonWriter& json, const std::string& key, const std::vector<hsize_t>& values)
{
    json.Key(key);
    json.BeginArray();
    for (hsize_t v : values)
        json.Value(uint64_t(v));
    json.EndArray();
}

// Named counts as one JSON object.
void CountsField(CJsonWriter& json, const std::string& key,
                 std::initializer_list<std::pair<const char*, uint64_t>> counts)
{
    json.Key(key);
    json.BeginObject();
    for (const auto& count : counts)
        json.Field(count.first, count.second);
    json.EndObject();
}

void PrintJson(CJsonWriter& json, const SDataset& d, const SInspectOptions& o)
{
    json.BeginObject();
    json.Field("name", d.name);
    json.Field("datatype", d.type);
    ArrayField(json, "shape", d.dims);
    ArrayField(json, "chunk_shape", d.chunkDims);
    json.Key("client_data");
    json.BeginObject();
    for (size_t i = 0; i < d.clientData.size(); ++i)
        json.Field(CLIENT_DATA_NAMES[i], uint64_t(d.clientData[i]));
    json.EndObject();
    json.Field("raw_bytes", uint64_t(d.rawBytes));
    json.Field("stored_bytes", uint64_t(d.storedBytes));
    json.Field("ratio", d.storedBytes ? double(d.rawBytes) / double(d.storedBytes) : 0.0);
    json.Key("chunks");
    json.BeginArray();
    for (const SChunk& c : d.chunks) {
        if (!o.chunks && !o.segments && c.damage.empty())
            continue;
        json.BeginObject();
        ArrayField(json, "offset", c.offset);
        json.Field("stored_bytes", uint64_t(c.storedBytes));
        json.Field("filtered", !c.unfiltered);
        if (!c.damage.empty())
            json.Field("damage", c.damage);
        if (o.segments) {
            json.Key("segments");
            json.BeginArray();
            for (const SSegmentReport& s : c.segments) {
                json.BeginObject();
                json.Field("form", s.compressed ? "compressed" : "stored");
                json.Field("cells", CellName(s.cellBits));
                for (const auto& count : {std::pair<const char*, uint64_t>{"offset", s.offset},
                                          {"segment_size", s.segSize}, {"bias", s.bias}, {"segmin", s.segmin},
                                          {"coded_planes", s.codedPlanes}, {"stream_bytes", s.streamBytes},
                                          {"map_bytes", s.mapBytes}, {"length", s.length}})
                    json.Field(count.first, count.second);
                json.EndObject();
            }
            json.EndArray();
        }
        json.EndObject();
    }
    json.EndArray();
    if (o.segments) {
        const STotals t = SumSegments(d);
        CountsField(json, "segment_totals",
                    {{"segments", t.segments}, {"compressed", t.compressed}, {"field_bytes", t.fieldBytes},
                     {"stream_bytes", t.streamBytes}, {"map_bytes", t.mapBytes}, {"stored_data_bytes", t.storedData}});
    }
    json.EndObject();
}

} // namespace

int Inspect(const SInspectOptions& o)
{
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    if (H5Fis_hdf5(o.file.c_str()) <= 0)
        throw CCliError(EXIT_BAD_USAGE, "cannot open " + o.file + " as an HDF5 file");
    CHid file(H5Fopen(o.file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    if (!file.Valid())
        throw CCliError(EXIT_BAD_USAGE, "cannot open " + o.file + " as an HDF5 file");
    std::vector<std::string> names = o.datasets;
    for (const std::string& name : names) {
        H5O_info_t info;
        if (H5Oget_info_by_name2(file, name.c_str(), &info, H5O_INFO_BASIC, H5P_DEFAULT) < 0 ||
            info.type != H5O_TYPE_DATASET)
            throw CCliError(EXIT_BAD_USAGE, "no dataset " + name + " in " + o.file);
    }
    if (names.empty())
        H5Ovisit2(file, H5_INDEX_NAME, H5_ITER_INC, CollectDataset, &names, H5O_INFO_BASIC);

    std::vector<SDataset> datasets;
    for (const std::string& name : names) {
        bool usesFilter = false;
        SDataset d = Examine(file, name, usesFilter);
        if (usesFilter)
            datasets.push_back(std::move(d));
        else if (!o.datasets.empty())
            throw CCliError(EXIT_BAD_USAGE, "dataset " + name + " does not use filter 32910");
    }

    bool damaged = false;
    for (const SDataset& d : datasets)
        for (const SChunk& c : d.chunks)
            damaged |= !c.damage.empty();
    if (o.json) {
        CJsonWriter json(std::cout);
        json.BeginObject();
        json.Field("file", o.file);
        json.Key("datasets");
        json.BeginArray();
        for (const SDataset& d : datasets)
            PrintJson(json, d, o);
        json.EndArray();
        json.EndObject();
        std::cout << "\n";
    } else {
        if (datasets.empty())
            std::cout << "no dataset of " << o.file << " uses filter 32910\n";
        for (const SDataset& d : datasets)
            PrintText(d, o);
    }
    if (damaged)
        std::cerr << "mertax: " << o.file << " has damaged chunks\n";
    return damaged ? EXIT_BAD_DATA : EXIT_OK;
}
