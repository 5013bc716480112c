#pragma once

// Turns photon counts into a grey-scale PNG: counts are summed over `bin` x `bin` blocks and shown on a
// logarithmic scale that saturates at the 99.9th percentile of the non-empty blocks, so that a few hot spots
// do not leave the rest of the picture black.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <png.h>

namespace photonpng {

struct Gray {
    std::size_t width = 0;
    std::size_t height = 0;
    std::vector<std::uint8_t> pixels; ///< rows from y = 0, x running fastest
};

inline Gray render(const std::vector<std::uint32_t>& counts, std::size_t width, std::size_t height, std::size_t bin) {
    if (bin == 0 || counts.size() != width * height) {
        throw std::invalid_argument("image size and bin do not fit");
    }
    // A bin that does not divide the image leaves a narrower last column and row of bins.
    Gray out;
    out.width = (width + bin - 1) / bin;
    out.height = (height + bin - 1) / bin;
    std::vector<std::uint64_t> summed(out.width * out.height, 0);
    for (std::size_t y = 0; y < height; ++y) {
        for (std::size_t x = 0; x < width; ++x) {
            summed[(y / bin) * out.width + x / bin] += counts[y * width + x];
        }
    }
    std::vector<std::uint64_t> nonEmpty;
    for (const auto value : summed) {
        if (value > 0) {
            nonEmpty.push_back(value);
        }
    }
    double top = 1;
    if (!nonEmpty.empty()) {
        const std::size_t rank = std::min(nonEmpty.size() - 1, nonEmpty.size() * 999 / 1000);
        std::nth_element(nonEmpty.begin(), nonEmpty.begin() + static_cast<std::ptrdiff_t>(rank), nonEmpty.end());
        top = static_cast<double>(std::max<std::uint64_t>(nonEmpty[rank], 1));
    }
    out.pixels.resize(summed.size());
    for (std::size_t i = 0; i < summed.size(); ++i) {
        const double level = std::log1p(static_cast<double>(summed[i])) / std::log1p(top);
        out.pixels[i] = static_cast<std::uint8_t>(std::lround(255.0 * std::min(level, 1.0)));
    }
    return out;
}

inline void write(const std::string& path, const Gray& image) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        throw std::invalid_argument("Unable to open file \"" + path + "\" !");
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        throw std::invalid_argument("Unable to write PNG \"" + path + "\" !");
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width), static_cast<png_uint_32>(image.height), 8,
                 PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (std::size_t y = 0; y < image.height; ++y) {
        png_write_row(png, image.pixels.data() + y * image.width);
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fclose(file) != 0) {
        throw std::invalid_argument("Unable to write PNG \"" + path + "\" !");
    }
}

} // namespace photonpng
