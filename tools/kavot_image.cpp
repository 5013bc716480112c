// kavot image: photon counts as a quick-look PNG or as a TIFF of the true counts.

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "CountTiff.hpp"
#include "Image_2D_Photons.hpp"
#include "KavotCommand.hpp"
#include "OutputFile.hpp"
#include "PhotonPng.hpp"

namespace kavot_tool {

const char* const help_image =
    "Usage: kavot image FILE.kavotphot|FILE.raw OUT.png|OUT.tiff [BIN]\n"
    "\n"
    "Draws the photon counts on the grid of 2048 x 2048 bins of 0.125 pixel that vundrel --photImgPath\n"
    "writes. The input is a .kavotphot photon file (its photons are counted into the bins, read a batch at a\n"
    "time) or such a raw count image (16777216 bytes: 2048 x 2048 native-endian 32-bit counters, row y = 0\n"
    "first, x running fastest).\n"
    "\n"
    "  OUT.png           a grey-scale quick look: counts summed over BIN x BIN bins (default 1; BIN must\n"
    "                    divide 2048) on a logarithmic scale that saturates at the 99.9th percentile\n"
    "  OUT.tiff, OUT.tif the true counts, 2048 x 2048, one channel of 32-bit unsigned integers, as ImageJ\n"
    "                    and Fiji open them (BIN must be 1 or absent)\n"
    "\n"
    "Row y = 0 is the top row of the picture in both. The output appears complete or not at all.\n";

namespace {

/// The side of vundrel's image, in bins of `Image_2D_Photons::run_resolution`.
constexpr auto side_bins = static_cast<std::size_t>(Image_2D_Photons::detectorWidth_raw /
                                                    static_cast<double>(Image_2D_Photons::run_resolution.get_value()));
static_assert(side_bins == 2048, "the help text and the TIFF promise 2048 x 2048");

/// The counts of a raw count image, checked to be exactly that.
std::vector<std::uint32_t> read_rawCounts(const std::string& path) {
    std::ifstream stream(path, std::ios::in | std::ios::binary);
    if (!stream) {
        throw std::invalid_argument("Unable to open file \"" + path + "\" !");
    }
    std::vector<std::uint32_t> counts(side_bins * side_bins);
    const auto bytes = static_cast<std::streamsize>(counts.size() * sizeof(std::uint32_t));
    stream.read(reinterpret_cast<char*>(counts.data()), bytes);
    if (stream.gcount() != bytes || stream.peek() != EOF) {
        throw std::invalid_argument("\"" + path + "\" is not a raw 2048 x 2048 photon count image!");
    }
    return counts;
}

std::vector<std::uint32_t> count_photons(const std::string& path) {
    Image_2D_Photons image(Image_2D_Photons::run_resolution);
    kavot_tpx3spidr::PhotonFile::Reader reader(path);
    reader.for_eachPhoton(
        [&](const kavot_tpx3spidr::PhotonEvent_type& photon) { image.add_photonEvent<true>(photon); });
    return image.get_counts();
}

/// BIN as given: a whole number that divides the image's side.
std::size_t parse_bin(const std::string& text) {
    std::size_t bin = 0;
    const bool digits = !text.empty() && text.size() <= 4 && text.find_first_not_of("0123456789") == std::string::npos;
    if (digits) {
        bin = std::stoul(text);
    }
    if (bin == 0 || side_bins % bin != 0) {
        throw std::invalid_argument("BIN must be a whole number that divides 2048 (1, 2, 4, ... 2048), not \"" + text +
                                    "\"!");
    }
    return bin;
}

} // namespace

int run_image(const Arguments& arguments) {
    const std::string& input = arguments.operands[0];
    const std::string& output = arguments.operands[1];
    const std::size_t bin = arguments.operands.size() == 3 ? parse_bin(arguments.operands[2]) : 1;
    const bool tiff = has_suffix(output, ".tiff") || has_suffix(output, ".tif");
    if (!tiff && !has_suffix(output, ".png")) {
        throw std::invalid_argument("\"" + output + "\" must end in .png, .tiff or .tif!");
    }
    if (tiff && bin != 1) {
        throw std::invalid_argument("a TIFF holds the count of every bin: BIN must be 1 or absent!");
    }
    const std::vector<std::uint32_t> counts =
        has_suffix(input, ".kavotphot") ? count_photons(input) : read_rawCounts(input);
    OutputFile target(output);
    if (tiff) {
        counttiff::write(target.writingPath(), counts, side_bins, side_bins,
                         "photon counts in bins of 0.125 x 0.125 pixel");
    } else {
        photonpng::write(target.writingPath(), photonpng::render(counts, side_bins, side_bins, bin));
    }
    target.commit();
    return 0;
}

} // namespace kavot_tool
