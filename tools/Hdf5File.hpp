#pragma once

// Writing HDF5 files through the HDF5 C library: a file, groups, attributes, and one-dimensional columns that
// are written a batch at a time (chunked, shuffled and deflate-compressed), so memory does not grow with the
// data. Every failure becomes one std::invalid_argument line; the library's own error printing is off.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <hdf5.h>

#include "ScaleOffset.hpp"
#include "Units.hpp"

namespace kavot_tool {

/// Owns one HDF5 identifier and closes it with the matching function.
class Hdf5Id {
public:
    Hdf5Id(hid_t id_, herr_t (*close_)(hid_t), const std::string& what) : id(id_), close(close_) {
        if (id < 0) {
            throw std::invalid_argument("HDF5: unable to " + what + "!");
        }
    }
    Hdf5Id(Hdf5Id&& other) noexcept : id(std::exchange(other.id, -1)), close(other.close) {}
    Hdf5Id(const Hdf5Id&) = delete;
    Hdf5Id& operator=(const Hdf5Id&) = delete;
    Hdf5Id& operator=(Hdf5Id&&) = delete;
    ~Hdf5Id() {
        if (id >= 0) {
            close(id);
        }
    }
    [[nodiscard]] hid_t get() const noexcept { return id; }

    /// Closes now and reports a failure; the file's last bytes are written by the close of the file itself.
    void close_checked(const std::string& what) {
        if (close(std::exchange(id, -1)) < 0) {
            throw std::invalid_argument("HDF5: unable to " + what + "!");
        }
    }

private:
    hid_t id;
    herr_t (*close)(hid_t);
};

inline void check_hdf5(herr_t status, const std::string& what) {
    if (status < 0) {
        throw std::invalid_argument("HDF5: unable to " + what + "!");
    }
}

/// Objects created with `properties` carry no times: a file then holds the same bytes for the same content.
inline void untimed(hid_t properties) {
    check_hdf5(H5Pset_obj_track_times(properties, false), "describe an object");
}

/// A UTF-8 text attribute (h5py reads it as str).
inline void write_attribute(hid_t object, const char* name, const std::string& value) {
    const Hdf5Id type(H5Tcopy(H5T_C_S1), H5Tclose, "make a text type");
    check_hdf5(H5Tset_size(type.get(), H5T_VARIABLE), "make a text type");
    check_hdf5(H5Tset_cset(type.get(), H5T_CSET_UTF8), "make a text type");
    const Hdf5Id space(H5Screate(H5S_SCALAR), H5Sclose, "make an attribute");
    const Hdf5Id attribute(H5Acreate2(object, name, type.get(), space.get(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose,
                           std::string("create attribute ") + name);
    const char* text = value.c_str();
    check_hdf5(H5Awrite(attribute.get(), type.get(), &text), std::string("write attribute ") + name);
}

inline void write_attribute(hid_t object, const char* name, double value) {
    const Hdf5Id space(H5Screate(H5S_SCALAR), H5Sclose, "make an attribute");
    const Hdf5Id attribute(H5Acreate2(object, name, H5T_IEEE_F64LE, space.get(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose,
                           std::string("create attribute ") + name);
    check_hdf5(H5Awrite(attribute.get(), H5T_NATIVE_DOUBLE, &value), std::string("write attribute ") + name);
}

inline void write_attribute(hid_t object, const char* name, std::int64_t value) {
    const Hdf5Id space(H5Screate(H5S_SCALAR), H5Sclose, "make an attribute");
    const Hdf5Id attribute(H5Acreate2(object, name, H5T_STD_I64LE, space.get(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose,
                           std::string("create attribute ") + name);
    check_hdf5(H5Awrite(attribute.get(), H5T_NATIVE_INT64, &value), std::string("write attribute ") + name);
}

/// Stored and in-memory HDF5 types of the column values.
template <typename T>
struct Hdf5Type;
template <>
struct Hdf5Type<double> {
    static hid_t stored() { return H5T_IEEE_F64LE; }
    static hid_t memory() { return H5T_NATIVE_DOUBLE; }
};
template <>
struct Hdf5Type<std::uint16_t> {
    static hid_t stored() { return H5T_STD_U16LE; }
    static hid_t memory() { return H5T_NATIVE_UINT16; }
};
template <>
struct Hdf5Type<std::uint8_t> {
    static hid_t stored() { return H5T_STD_U8LE; }
    static hid_t memory() { return H5T_NATIVE_UINT8; }
};
template <>
struct Hdf5Type<std::uint32_t> {
    static hid_t stored() { return H5T_STD_U32LE; }
    static hid_t memory() { return H5T_NATIVE_UINT32; }
};
template <>
struct Hdf5Type<std::int64_t> {
    static hid_t stored() { return H5T_STD_I64LE; }
    static hid_t memory() { return H5T_NATIVE_INT64; }
};

/// How the chunks of a column are compressed, losslessly and readable by every HDF5 reader.
///  - small: bytes shuffled and deflated (level 4): the smallest file, at the most time.
///  - fast: integers packed by HDF5's scale-offset filter into the bits their range in the chunk needs (the fast
///    choice for times, counts and indices); floating-point columns are stored as they are, as no lossless
///    filter of every reader makes them smaller at little cost.
///  - none.
enum class Hdf5Compression { small, fast, none };

/// A one-dimensional dataset filled from the front a batch at a time: of a length known in advance, or, without
/// one, growing with every batch.
template <typename T>
class Hdf5Column {
public:
    static constexpr hsize_t chunk_values = 65536;

    Hdf5Column(hid_t parent, const std::string& name, std::optional<hsize_t> length_, Hdf5Compression compression)
        : length(length_.value_or(0)), growing(!length_),
          chunk(growing ? chunk_values : std::min<hsize_t>(chunk_values, std::max<hsize_t>(length, 1))),
          packed(compression == Hdf5Compression::fast && std::is_integral_v<T>),
          direct(compression != Hdf5Compression::small), dataset(create(parent, name, compression)) {}

    [[nodiscard]] hid_t get() const noexcept { return dataset.get(); }

    /// Writes the next `count` values.
    void append(const T* values, hsize_t count) {
        if (count == 0) {
            return;
        }
        if (growing) {
            length = written + count;
            check_hdf5(H5Dset_extent(dataset.get(), &length), "extend a dataset");
        } else if (count > length - written) {
            throw std::invalid_argument("HDF5: more values than the dataset holds!");
        }
        if (direct) {
            appendChunks(values, count);
            return;
        }
        const Hdf5Id fileSpace(H5Dget_space(dataset.get()), H5Sclose, "select in a dataset");
        check_hdf5(H5Sselect_hyperslab(fileSpace.get(), H5S_SELECT_SET, &written, nullptr, &count, nullptr),
                   "select in a dataset");
        const Hdf5Id memorySpace(H5Screate_simple(1, &count, nullptr), H5Sclose, "describe a batch");
        check_hdf5(
            H5Dwrite(dataset.get(), Hdf5Type<T>::memory(), memorySpace.get(), fileSpace.get(), H5P_DEFAULT, values),
            "write a dataset");
        written += count;
    }

    void close() {
        if (written != length) {
            throw std::invalid_argument("HDF5: a dataset was not filled!");
        }
        dataset.close_checked("close a dataset");
    }

private:
    /// Writes whole chunks as they are stored: integers packed as the scale-offset filter packs them (see
    /// `ScaleOffset.hpp`), other values as they lie in memory. A last, shorter chunk is padded with its last
    /// value, which leaves its range as it is. HDF5's own write would copy each chunk through its chunk cache.
    void appendChunks(const T* values, hsize_t count) {
        if (written % chunk != 0) {
            throw std::invalid_argument("HDF5: a column written as chunks takes its values a chunk at a time!");
        }
        for (hsize_t at = 0; at < count; at += chunk) {
            const auto n = static_cast<std::size_t>(std::min<hsize_t>(chunk, count - at));
            const T* from = values + at;
            if (n < chunk) {
                padded.assign(from, from + n);
                padded.resize(static_cast<std::size_t>(chunk), padded.back());
                from = padded.data();
            }
            const void* bytes = from;
            std::size_t size = static_cast<std::size_t>(chunk) * sizeof(T);
            if constexpr (std::is_integral_v<T>) {
                if (packed) {
                    scaleoffset::encode(from, static_cast<std::size_t>(chunk), stored);
                    bytes = stored.data();
                    size = stored.size();
                }
            }
            const hsize_t offset = written + at;
            check_hdf5(H5Dwrite_chunk(dataset.get(), H5P_DEFAULT, 0, &offset, size, bytes), "write a dataset");
        }
        written += count;
    }

    Hdf5Id create(hid_t parent, const std::string& name, Hdf5Compression compression) const {
        // Unlimited in extent so that a chunk may be larger than the data (an empty dataset still needs one).
        const hsize_t unlimited = H5S_UNLIMITED;
        const Hdf5Id space(H5Screate_simple(1, &length, &unlimited), H5Sclose, "describe a dataset");
        const Hdf5Id properties(H5Pcreate(H5P_DATASET_CREATE), H5Pclose, "describe a dataset");
        check_hdf5(H5Pset_chunk(properties.get(), 1, &chunk), "describe a dataset");
        untimed(properties.get());
        if (compression == Hdf5Compression::small) {
            // Shuffling the bytes of neighbouring values first makes their slowly varying high bytes compress well.
            check_hdf5(H5Pset_shuffle(properties.get()), "compress a dataset");
            check_hdf5(H5Pset_deflate(properties.get(), 4), "compress a dataset");
        } else if (packed) {
            // Without a fill value the filter keeps no code for it: the chunks are packed as `appendChunks` does.
            check_hdf5(H5Pset_scaleoffset(properties.get(), H5Z_SO_INT, H5Z_SO_INT_MINBITS_DEFAULT),
                       "compress a dataset");
            check_hdf5(H5Pset_fill_value(properties.get(), Hdf5Type<T>::stored(), nullptr), "compress a dataset");
        }
        return Hdf5Id(H5Dcreate2(parent, name.c_str(), Hdf5Type<T>::stored(), space.get(), H5P_DEFAULT,
                                 properties.get(), H5P_DEFAULT),
                      H5Dclose, "create dataset " + name);
    }

    hsize_t length;
    bool growing;
    hsize_t chunk;
    bool packed; ///< integers packed chunk by chunk by scale-offset
    bool direct; ///< chunks written as stored: packed, or without a filter
    hsize_t written = 0;
    Hdf5Id dataset;
    std::vector<unsigned char> stored; ///< the chunk being written, packed
    std::vector<T> padded;             ///< a last, shorter chunk, padded
};

/// A column of values collected a batch at a time (a chunk's worth), with its unit as the attribute "units" (and,
/// for times in ticks, the tick length as "tick_s"). Of a length known in advance, or growing without one.
template <typename T>
class BatchedColumn {
public:
    static constexpr std::size_t batch_values = 65536;

    BatchedColumn(hid_t parent,
                  const std::string& name,
                  const std::string& units,
                  std::optional<hsize_t> length = {},
                  Hdf5Compression compression = Hdf5Compression::small)
        : column(parent, name, length, compression) {
        write_attribute(column.get(), "units", units);
        if (units == "ticks") {
            write_attribute(column.get(), "tick_s", kavot_tpx3spidr::Time::tick_seconds);
        }
    }
    [[nodiscard]] hid_t get() const noexcept { return column.get(); }
    void push(T value) {
        values[held++] = value;
        if (held == batch_values) {
            flush();
        }
    }
    /// Room for this many values before the batch is written; `next()` is where they go, and `advance(n)`
    /// takes the first `n` written there. Columns filled side by side are filled in one loop this way.
    [[nodiscard]] std::size_t room() const noexcept { return batch_values - held; }
    [[nodiscard]] T* next() noexcept { return values.get() + held; }
    void advance(std::size_t n) {
        held += n;
        if (held == batch_values) {
            flush();
        }
    }
    void flush() {
        column.append(values.get(), held);
        held = 0;
    }
    void close() {
        flush();
        column.close();
    }

private:
    Hdf5Column<T> column;
    /// Left uninitialised: each value is written before it is read (a zeroed batch cost a pass over it).
    std::unique_ptr<T[]> values{new T[batch_values]};
    std::size_t held = 0;
};

/// A new HDF5 file at `path` (an existing file there is replaced).
class Hdf5File {
public:
    explicit Hdf5File(const std::string& path)
        : file((quiet(), H5Fcreate(path.c_str(), H5F_ACC_TRUNC, untimedCreation(H5P_FILE_CREATE).get(), H5P_DEFAULT)),
               H5Fclose,
               "create \"" + path + "\"") {}

    [[nodiscard]] hid_t get() const noexcept { return file.get(); }

    [[nodiscard]] Hdf5Id create_group(const std::string& name) const {
        return Hdf5Id(
            H5Gcreate2(file.get(), name.c_str(), H5P_DEFAULT, untimedCreation(H5P_GROUP_CREATE).get(), H5P_DEFAULT),
            H5Gclose, "create group " + name);
    }

    /// Flushes and closes the file; only a file closed without error is complete.
    void close() { file.close_checked("write the file"); }

private:
    /// Creation properties of the class `kind` (the file's root group, a group) without times.
    static Hdf5Id untimedCreation(hid_t kind) {
        Hdf5Id properties(H5Pcreate(kind), H5Pclose, "describe an object");
        untimed(properties.get());
        return properties;
    }

    /// The library prints its error stack by default; ours are the messages thrown above.
    static int quiet() {
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
        return 0;
    }

    Hdf5Id file;
};

} // namespace kavot_tool
