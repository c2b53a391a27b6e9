// The compiled half of the Python package: the codec's C interface over Python buffers, with the
// GIL released while the codec runs and failures raised as ValueError with their reason.
#include "CheckedExpansion.h"
#include "OptimalBiasDulo.h"
#include "Report.h"
#include "SegmentFormat.h"
#include "mertax.h"

#include <pybind11/pybind11.h>

#include <string>

namespace py = pybind11;

namespace {

void CheckCellSize(size_t cellBytes)
{
    if (!IsCellSize(cellBytes))
        throw py::value_error(CellSizeError(cellBytes));
}

// A C-contiguous view of any buffer, in bytes.
struct CBytes
{
    explicit CBytes(const py::buffer& buffer, bool writable = false)
        : m_info(buffer.request(writable)), m_size(size_t(m_info.size) * size_t(m_info.itemsize))
    {
        if (!IsCContiguous())
            throw py::value_error("the buffer must be C-contiguous");
    }
    bool IsCContiguous() const
    {
        py::ssize_t stride = m_info.itemsize;
        for (py::ssize_t d = m_info.ndim; d-- > 0;) {
            if (m_info.shape[size_t(d)] > 1 && m_info.strides[size_t(d)] != stride)
                return false;
            stride *= m_info.shape[size_t(d)];
        }
        return true;
    }
    void* Data() const { return m_info.ptr; }
    size_t Size() const { return m_size; }

private:
    py::buffer_info m_info;
    size_t m_size;
};

// reduce: 16-bit cells whose values fit in a byte are coded as bytes, as the HDF5 filter does;
// without it every segment records the cells' true width.
py::bytes Compress(const py::buffer& data, size_t cellBytes, int level, bool reduce, unsigned threads)
{
    CheckCellSize(cellBytes);
    if (level < 0 || level > 9)
        throw py::value_error("level must be 0 to 9, not " + std::to_string(level));
    const CBytes in(data);
    if (in.Size() % cellBytes != 0)
        throw py::value_error("the data's " + std::to_string(in.Size()) + " bytes are not a whole number of " +
                              std::to_string(cellBytes) + "-byte cells");
    if (in.Size() == 0)
        return py::bytes();
    // The codec writes straight into the bytes object, which is cut to the compressed size after:
    // no zero fill of the worst case, no copy.
    const size_t bound = mertax_compress_bound(cellBytes, in.Size());
    py::bytes out = py::reinterpret_steal<py::bytes>(PyBytes_FromStringAndSize(nullptr, py::ssize_t(bound)));
    if (!out)
        throw py::error_already_set();
    uint8_t* pOut = reinterpret_cast<uint8_t*>(PyBytes_AS_STRING(out.ptr()));
    size_t size;
    {
        py::gil_scoped_release release;
        if (reduce || cellBytes != 2) {
            size = mertax_compress_mt(in.Data(), in.Size(), cellBytes, level, pOut, bound, threads);
        } else {
            CQuietCodec quiet;
            COptimalBiasDulo codec;
            codec.SetCompressLevel(size_t(level));
            size = codec.CompressOnThreads(in.Data(), in.Size(), cellBytes, pOut, bound, threads);
        }
    }
    if (size == 0)
        throw py::value_error("the codec could not compress the data");
    PyObject* pResized = out.release().ptr();
    if (_PyBytes_Resize(&pResized, py::ssize_t(size)) != 0)
        throw py::error_already_set();
    return py::reinterpret_steal<py::bytes>(pResized);
}

size_t ExpandedSize(const py::buffer& data, size_t cellBytes)
{
    CheckCellSize(cellBytes);
    const CBytes in(data);
    const CStreamSize size = CheckStream(static_cast<const uint8_t*>(in.Data()), in.Size(), cellBytes);
    if (!size.ok)
        throw py::value_error(size.error);
    return size.bytes;
}

void DecompressInto(const py::buffer& data, size_t cellBytes, const py::buffer& out, unsigned threads)
{
    CheckCellSize(cellBytes);
    const CBytes in(data);
    const CBytes dst(out, true);
    bool whole;
    std::string error;
    {
        py::gil_scoped_release release;
        whole = ExpandStream(static_cast<const uint8_t*>(in.Data()), in.Size(), cellBytes, dst.Data(), dst.Size(),
                             error, threads);
    }
    if (!whole)
        throw py::value_error(error);
}

// The cell size that a stream's segments call for: their own width, 2 when 16-bit segments come
// with byte ones (which then widen).
size_t StreamCellHint(const py::buffer& data)
{
    const CBytes in(data);
    const CStreamWalk walk = WalkStream(static_cast<const uint8_t*>(in.Data()), in.Size());
    if (!walk.whole)
        throw py::value_error(walk.Damage());
    return ModeBits(walk.widestMode) / 8;
}

} // namespace

PYBIND11_MODULE(_mertax, m)
{
    m.doc() = "libmertax codec over Python buffers (use the mertax package)";
    m.def("compress", &Compress, py::arg("data"), py::arg("cell_bytes"), py::arg("level"), py::arg("reduce") = true,
          py::arg("threads") = 1);
    m.def("expanded_size", &ExpandedSize, py::arg("data"), py::arg("cell_bytes"));
    m.def("decompress_into", &DecompressInto, py::arg("data"), py::arg("cell_bytes"), py::arg("out"),
          py::arg("threads") = 1);
    m.def("stream_cell_hint", &StreamCellHint, py::arg("data"));
    m.def("version", &mertax_version);
    m.attr("FILTER_ID") = ZV_H5_MERTAX_FILTER_ID;
}
