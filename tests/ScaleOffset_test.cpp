// Chunks packed as HDF5's scale-offset filter packs them, against the filter itself: the same stored bytes for
// every range of values, and columns written chunk by chunk read back through HDF5.

#include <cstdint>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Hdf5File.hpp"
#include "ScaleOffset.hpp"

namespace {

using namespace kavot_tool;

std::string scratchFile() {
    return (std::filesystem::temp_directory_path() / ("kavot_scaleoffset_" + std::to_string(::getpid()) + ".h5"))
        .string();
}

/// The bytes the filter stores for one chunk of `values`, written through HDF5 and read back raw.
template <typename T>
std::vector<unsigned char> filtered(const std::vector<T>& values) {
    const std::string path = scratchFile();
    std::vector<unsigned char> stored;
    {
        Hdf5File file(path);
        const auto n = static_cast<hsize_t>(values.size());
        const Hdf5Id space(H5Screate_simple(1, &n, nullptr), H5Sclose, "space");
        const Hdf5Id properties(H5Pcreate(H5P_DATASET_CREATE), H5Pclose, "properties");
        check_hdf5(H5Pset_chunk(properties.get(), 1, &n), "chunk");
        check_hdf5(H5Pset_scaleoffset(properties.get(), H5Z_SO_INT, H5Z_SO_INT_MINBITS_DEFAULT), "filter");
        check_hdf5(H5Pset_fill_value(properties.get(), Hdf5Type<T>::stored(), nullptr), "fill");
        const Hdf5Id dataset(
            H5Dcreate2(file.get(), "a", Hdf5Type<T>::stored(), space.get(), H5P_DEFAULT, properties.get(), H5P_DEFAULT),
            H5Dclose, "dataset");
        check_hdf5(H5Dwrite(dataset.get(), Hdf5Type<T>::memory(), H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()),
                   "write");
        const hsize_t origin = 0;
        hsize_t size = 0;
        check_hdf5(H5Dget_chunk_storage_size(dataset.get(), &origin, &size), "size");
        stored.resize(static_cast<std::size_t>(size));
        std::uint32_t mask = 0;
        check_hdf5(H5Dread_chunk(dataset.get(), H5P_DEFAULT, &origin, &mask, stored.data()), "read");
    }
    std::filesystem::remove(path);
    return stored;
}

template <typename T>
void expectFilterBytes(const std::vector<T>& values) {
    // Into a buffer that held a longer chunk before: what it held shows nowhere.
    std::vector<unsigned char> ours(scaleoffset::header_bytes + values.size() * sizeof(T) + 64, 0xA5);
    scaleoffset::encode(values.data(), values.size(), ours);
    std::vector<unsigned char> theirs = filtered(values);
    // Of equal values (no bits) the filter leaves its one byte after the header as the allocation left it.
    if (ours.size() == theirs.size() && ours[0] == 0 && ours[1] == 0 && ours[2] == 0 && ours[3] == 0) {
        theirs.back() = ours.back();
    }
    EXPECT_EQ(ours, theirs);
}

} // namespace

TEST(ScaleOffset, PacksEachChunkAsTheFilterDoes) {
    using L = std::numeric_limits<std::int64_t>;
    // Spans just under, at and over powers of two; all equal (no bits); the widest packed spans (57 to 63 bits,
    // written in two pieces); spans that leave fewer than three codes free (stored as they are); negative values.
    const std::vector<std::vector<std::int64_t>> int64Cases = {
        {5, 5, 5},
        {0, 1},
        {0, 2},
        {3, 10, 4, 6},
        {-7, 9, 0, -7},
        {-1, 0, 1},
        {0, 1L << 56},
        {0, 1L << 57},
        {0, L::max() / 2},
        {0, L::max() - 3},
        {L::min(), L::max()},
        {7, 3},
        {L::min() + 5, 0},
        {1000000000123L, 1000000640123L, 1000000000124L},
    };
    for (const auto& values : int64Cases) {
        SCOPED_TRACE(testing::Message() << values.front() << " .. " << values.back() << " (" << values.size() << ")");
        expectFilterBytes(values);
    }
    std::mt19937_64 random(3);
    for (const unsigned bits : {1u, 7u, 8u, 9u, 31u, 33u, 56u, 57u, 63u}) {
        SCOPED_TRACE(bits);
        std::vector<std::int64_t> values(4099);
        for (auto& value : values) {
            value = static_cast<std::int64_t>(random() >> (64 - bits)) - 12345;
        }
        expectFilterBytes(values);
    }
    expectFilterBytes(std::vector<std::uint8_t>{0, 255, 17});
    expectFilterBytes(std::vector<std::uint8_t>{0, 252});
    expectFilterBytes(std::vector<std::uint16_t>{1, 2, 3, 1023, 65535});
    expectFilterBytes(std::vector<std::uint32_t>{4294967295U, 0, 12});
    expectFilterBytes(std::vector<std::uint32_t>{4294967292U, 0});
}

TEST(ScaleOffset, PackedColumnsReadBackThroughHdf5) {
    const std::string path = scratchFile();
    std::mt19937_64 random(9);
    // Several chunks and a shorter last one (padded when stored), values rising like times.
    std::vector<std::int64_t> times(3 * 65536 + 777);
    std::int64_t t = -5000;
    for (auto& time : times) {
        time = t += static_cast<std::int64_t>(random() % 300);
    }
    {
        Hdf5File file(path);
        BatchedColumn<std::int64_t> column(file.get(), "t", "ticks", {}, Hdf5Compression::fast);
        for (const auto time : times) {
            column.push(time);
        }
        column.close();
        file.close();
    }
    std::vector<std::int64_t> read(times.size());
    {
        const Hdf5Id file(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose, "open");
        const Hdf5Id dataset(H5Dopen2(file.get(), "t", H5P_DEFAULT), H5Dclose, "open dataset");
        check_hdf5(H5Dread(dataset.get(), H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, read.data()), "read");
    }
    std::filesystem::remove(path);
    EXPECT_EQ(read, times);
}
