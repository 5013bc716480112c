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
    "Draws the photon counts on a grid of bins of 0.125 pixel. The input is a .kavotphot photon file (its\n"
    "photons are counted into the bins, read a batch at a time; the grid covers 256 x 256 pixels, or the\n"
    "canvas of a kavot convert output as far as its photons reach) or a raw count image of vundrel\n"
    "--photImgPath (16777216 bytes: 2048 x 2048 native-endian 32-bit counters, row y = 0 first, x running\n"
    "fastest).\n"
    "\n"
    "  OUT.png           a grey-scale quick look: counts summed over BIN x BIN bins (default 1, up to 4096)\n"
    "                    on a logarithmic scale that saturates at the 99.9th percentile\n"
    "  OUT.tiff, OUT.tif the true counts (2048 x 2048 for 256 x 256 pixels), one channel of 32-bit unsigned\n"
    "                    integers, as ImageJ and Fiji open them (BIN must be 1 or absent)\n"
    "\n"
    "Row y = 0 is the top row of the picture in both. The output appears complete or not at all.\n";

namespace {

/// The side of vundrel's image, in bins of `Image_2D_Photons::run_resolution`.
constexpr auto side_bins = static_cast<std::size_t>(Image_2D_Photons::detectorWidth_raw /
                                                    static_cast<double>(Image_2D_Photons::run_resolution.get_value()));
static_assert(side_bins == 2048, "the help text and the TIFF promise 2048 x 2048");
/// Images of photons beyond this many bins are refused (256 MiB of counters).
constexpr std::size_t maxCounters = std::size_t{1} << 26;

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

/// Photon counts in bins of 0.125 pixel over the photons' extent: 256 x 256 pixels for vundrel's photon files, the
/// canvas for those of kavot convert (whose chips may lie side by side on a larger canvas). Read twice, a batch at
/// a time: first for the extent.
struct PhotonCounts {
    std::vector<std::uint32_t> counts;
    std::size_t width;
    std::size_t height;
};
PhotonCounts count_photons(const std::string& path) {
    kavot_tpx3spidr::PhotonFile::Reader reader(path);
    constexpr long pixel_raw = 65536;
    long largestX = 0;
    long largestY = 0;
    reader.for_eachPhoton([&](const kavot_tpx3spidr::PhotonEvent_type& photon) {
        if (photon.x.get_value() < 0 || photon.y.get_value() < 0) {
            throw std::invalid_argument("\"" + path + "\" holds a photon at a negative position!");
        }
        largestX = std::max<long>(largestX, photon.x.get_value());
        largestY = std::max<long>(largestY, photon.y.get_value());
    });
    constexpr std::size_t binsPerPixel = 8;
    const auto side = [&](long largest) {
        return std::max<std::size_t>(256, static_cast<std::size_t>(largest / pixel_raw) + 1) * binsPerPixel;
    };
    PhotonCounts image{{}, side(largestX), side(largestY)};
    if (image.width * image.height > maxCounters) {
        throw std::invalid_argument("the photons of \"" + path + "\" span " + std::to_string(image.width / 8) + " x " +
                                    std::to_string(image.height / 8) + " pixels: too large an image!");
    }
    image.counts.assign(image.width * image.height, 0);
    reader.for_eachPhoton([&](const kavot_tpx3spidr::PhotonEvent_type& photon) {
        const auto x = static_cast<std::size_t>(photon.x.get_value()) * binsPerPixel / pixel_raw;
        const auto y = static_cast<std::size_t>(photon.y.get_value()) * binsPerPixel / pixel_raw;
        ++image.counts[y * image.width + x];
    });
    return image;
}

/// BIN as given: a whole number from 1 to 4096.
std::size_t parse_bin(const std::string& text) {
    std::size_t bin = 0;
    const bool digits = !text.empty() && text.size() <= 4 && text.find_first_not_of("0123456789") == std::string::npos;
    if (digits) {
        bin = std::stoul(text);
    }
    if (bin == 0 || bin > 4096) {
        throw std::invalid_argument("BIN must be a whole number from 1 to 4096, not \"" + text + "\"!");
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
    const PhotonCounts image = has_suffix(input, ".kavotphot")
                                   ? count_photons(input)
                                   : PhotonCounts{read_rawCounts(input), side_bins, side_bins};
    OutputFile target(output);
    if (tiff) {
        counttiff::write(target.writingPath(), image.counts, static_cast<std::uint32_t>(image.width),
                         static_cast<std::uint32_t>(image.height), "photon counts in bins of 0.125 x 0.125 pixel");
    } else {
        photonpng::write(target.writingPath(), photonpng::render(image.counts, image.width, image.height, bin));
    }
    target.commit();
    return 0;
}

} // namespace kavot_tool
