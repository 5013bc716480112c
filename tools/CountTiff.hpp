#pragma once

// Writes photon counts as a single-channel 32-bit unsigned TIFF: the true counts, which ImageJ and Fiji open as
// a 32-bit image. Rows from y = 0 (the top row in those programs, as in the PNG), x running fastest.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <tiffio.h>

namespace counttiff {

inline void write(const std::string& path,
                  const std::vector<std::uint32_t>& counts,
                  std::uint32_t width,
                  std::uint32_t height,
                  const std::string& description) {
    if (counts.size() != static_cast<std::size_t>(width) * height) {
        throw std::invalid_argument("image size and counts do not fit");
    }
    // libtiff prints its complaints by default; a failure is reported here, as one line.
    TIFFSetErrorHandler(nullptr);
    TIFFSetWarningHandler(nullptr);
    const std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(TIFFOpen(path.c_str(), "w"), TIFFClose);
    if (!tiff) {
        throw std::invalid_argument("Unable to open file \"" + path + "\" !");
    }
    constexpr std::uint32_t rowsPerStrip = 64;
    const bool described = TIFFSetField(tiff.get(), TIFFTAG_IMAGEWIDTH, width) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_IMAGELENGTH, height) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_SAMPLESPERPIXEL, 1) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_BITSPERSAMPLE, 32) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_COMPRESSION, COMPRESSION_NONE) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_ROWSPERSTRIP, rowsPerStrip) == 1 &&
                           TIFFSetField(tiff.get(), TIFFTAG_IMAGEDESCRIPTION, description.c_str()) == 1;
    if (!described) {
        throw std::invalid_argument("Unable to write TIFF \"" + path + "\" !");
    }
    std::vector<std::uint32_t> row(width);
    for (std::uint32_t y = 0; y < height; ++y) {
        // TIFFWriteScanline may change the row it is given; it gets a copy.
        std::copy_n(counts.begin() + static_cast<std::ptrdiff_t>(static_cast<std::size_t>(y) * width), width,
                    row.begin());
        if (TIFFWriteScanline(tiff.get(), row.data(), y, 0) != 1) {
            throw std::invalid_argument("Unable to write TIFF \"" + path + "\" !");
        }
    }
    if (TIFFFlush(tiff.get()) != 1) {
        throw std::invalid_argument("Unable to write TIFF \"" + path + "\" !");
    }
}

} // namespace counttiff
