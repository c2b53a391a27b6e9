#include "FileReport.h"

#include "CheckedExpansion.h"
#include "CliSupport.h"
#include "Hdf5Handle.h"
#include "Hdf5Objects.h"
#include "JsonWriter.h"
#include "SegmentReport.h"
#include "mertax.h"

#include <iomanip>
#include <iostream>
#include <numeric>
#include <sstream>

namespace {

const char* const CLIENT_DATA_NAMES[] = {"filter version", "encode version", "bufferSize",
                                         "flags",          "cellBytes",      "compressLevel"};

struct SChunk
{
    std::vector<hsize_t> offset;
    size_t storedBytes = 0;
    bool unfiltered = false; // stored without the filter (it was optional and failed)
    std::string damage;
    std::string unchecked; // why the chunk could not be checked, when it could not
    std::vector<SSegmentReport> segments;
};

struct SDataset
{
    std::string name;
    std::string type;
    std::vector<hsize_t> dims;
    std::vector<hsize_t> chunkDims;
    std::vector<unsigned> clientData;
    unsigned position = 0;            // of filter 32910 in the pipeline
    std::vector<H5Z_filter_t> after; // the filters that run after it on write, in order
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

// The filter's position in the dataset's pipeline, its client data and the filters after it;
// false when it has none.
bool FindFilter(hid_t dcpl, SDataset& d)
{
    const int count = H5Pget_nfilters(dcpl);
    bool found = false;
    for (int i = 0; i < count; ++i) {
        unsigned flags = 0;
        size_t words = 6;
        std::vector<unsigned> clientData(6, 0);
        const H5Z_filter_t id = H5Pget_filter2(dcpl, unsigned(i), &flags, &words, clientData.data(), 0, nullptr, nullptr);
        if (found) {
            d.after.push_back(id);
        } else if (id == ZV_H5_MERTAX_FILTER_ID) {
            clientData.resize(std::min<size_t>(words, 6));
            d.clientData = clientData;
            d.position = unsigned(i);
            found = true;
        }
    }
    return found;
}

// The chunk's bytes as filter 32910 wrote them: the Fletcher-32 checksums that later filters
// appended taken off (HDF5 checks them when it reads through the pipeline). False, with the
// reason, when another filter runs after ours: the chunk cannot be checked then, which is not
// damage.
bool UndoLaterFilters(const SDataset& d, unsigned mask, std::vector<uint8_t>& bytes, std::string& reason)
{
    for (size_t i = d.after.size(); i-- > 0;) {
        if ((mask >> (d.position + 1 + i)) & 1)
            continue; // that filter skipped this chunk
        if (d.after[i] != H5Z_FILTER_FLETCHER32) {
            reason = "filter " + std::to_string(d.after[i]) + " runs after filter 32910";
            return false;
        }
        if (bytes.size() < 4) {
            reason = "too short for its Fletcher-32 checksum";
            return false;
        }
        bytes.resize(bytes.size() - 4);
    }
    return true;
}

// Checks a chunk as the filter would expand it, and reads its segments.
void ExamineChunk(const std::vector<uint8_t>& bytes, const SDataset& d, SChunk& chunk)
{
    if (!ReportSegments(bytes.data(), bytes.size(), chunk.segments, chunk.damage))
        return;
    const size_t cellBytes = d.clientData.size() > 4 ? d.clientData[4] : 0;
    const size_t expected = d.clientData.size() > 2 && d.clientData[2] != 0 ? d.clientData[2] : d.chunkBytes;
    std::vector<uint8_t> cells;
    const CStreamSize size = CheckStream(bytes.data(), bytes.size(), cellBytes);
    if (!size.ok) {
        chunk.damage = size.error;
        return;
    }
    if (size.bytes != expected) {
        chunk.damage = "the data expands to " + std::to_string(size.bytes) + " bytes, not " + std::to_string(expected);
        return;
    }
    cells.resize(expected);
    ExpandStream(bytes.data(), bytes.size(), cellBytes, cells.data(), cells.size(), chunk.damage);
}

// Calls f(coordinates) for every chunk of the dataset that is stored, looking each up by its
// coordinates (a lookup by index walks the whole chunk index in HDF5 1.10, which made the
// listing quadratic in the chunk count).
template <typename F>
void ForEachStoredChunk(hid_t dataset, const SDataset& d, hsize_t stored, F&& f)
{
    const size_t rank = d.dims.size();
    std::vector<hsize_t> offset(rank, 0);
    for (size_t k = 0; k < rank; ++k)
        if (d.dims[k] == 0)
            return;
    for (hsize_t found = 0; found < stored;) {
        hsize_t size = 0;
        if (H5Dget_chunk_storage_size(dataset, offset.data(), &size) >= 0 && size != 0) {
            f(offset);
            ++found;
        }
        size_t k = rank;
        while (k-- > 0) {
            offset[k] += d.chunkDims[k];
            if (offset[k] < d.dims[k])
                break;
            offset[k] = 0;
        }
        if (k == size_t(-1))
            return;
    }
}

SDataset Examine(hid_t file, const std::string& name, bool& usesFilter)
{
    SDataset d;
    d.name = name;
    CHid dataset(H5Dopen2(file, name.c_str(), H5P_DEFAULT), H5Dclose);
    CHid dcpl(H5Dget_create_plist(dataset), H5Pclose);
    CHid type(H5Dget_type(dataset), H5Tclose);
    CHid space(H5Dget_space(dataset), H5Sclose);
    usesFilter = H5Pget_layout(dcpl) == H5D_CHUNKED && FindFilter(dcpl, d);
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
    ForEachStoredChunk(dataset, d, count, [&](const std::vector<hsize_t>& offset) {
        SChunk chunk;
        chunk.offset = offset;
        hsize_t size = 0;
        H5Dget_chunk_storage_size(dataset, offset.data(), &size);
        chunk.storedBytes = size;
        std::vector<uint8_t> bytes(size);
        uint32_t mask = 0;
        if (H5Dread_chunk(dataset, H5P_DEFAULT, offset.data(), &mask, bytes.data()) < 0) {
            chunk.damage = "cannot be read from the file";
        } else {
            chunk.unfiltered = (mask >> d.position) & 1;
            if (UndoLaterFilters(d, mask, bytes, chunk.unchecked) && !chunk.unfiltered)
                ExamineChunk(bytes, d, chunk);
        }
        d.chunks.push_back(std::move(chunk));
    });
    return d;
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
        if (!c.unchecked.empty())
            std::cout << "  chunk " << Coordinates(c.offset) << " not checked: " << c.unchecked << "\n";
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
        if (!c.unchecked.empty())
            json.Field("unchecked", c.unchecked);
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
    for (const std::string& name : names)
        if (!IsDataset(file, name))
            throw CCliError(EXIT_BAD_USAGE, "no dataset " + name + " in " + o.file);
    if (names.empty())
        names = AllDatasets(file);

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
