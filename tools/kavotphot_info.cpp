// Looks into photon event files and photon count images; see the usage text.

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "Image_2D_Photons.hpp"
#include "PhotonEvents.hpp"
#include "PhotonPng.hpp"

namespace {

using namespace kavot_tpx3spidr;

const char* const usage =
    "Usage:\n"
    "  kavotphot_info summary FILE.kavotphot     photon and trigger counts, time and x/y range\n"
    "  kavotphot_info csv FILE.kavotphot         photons as CSV on standard output:\n"
    "                                               x_px,y_px,toa_s,toa_ticks\n"
    "  kavotphot_info png INPUT OUT.png [BIN]    render a .kavotphot file or a raw photon count\n"
    "                                               image (2048 x 2048) to a PNG, BIN x BIN bins\n"
    "                                               per PNG pixel (default 1)\n";

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

int summary(const std::string& path) {
    const auto data = PhotonFile().read_fromFile(path);
    const auto& photons = data.photonEvents;
    std::printf("photons: %zu\n", photons.size());
    if (data.extTriggers) {
        std::printf("triggers: %zu\n", data.extTriggers->size());
    } else {
        std::printf("triggers: none recorded\n");
    }
    if (!photons.empty()) {
        const auto [tMin, tMax] = std::minmax_element(photons.begin(), photons.end(),
                                                      [](const auto& a, const auto& b) { return a.toa < b.toa; });
        const auto [xMin, xMax] =
            std::minmax_element(photons.begin(), photons.end(), [](const auto& a, const auto& b) { return a.x < b.x; });
        const auto [yMin, yMax] =
            std::minmax_element(photons.begin(), photons.end(), [](const auto& a, const auto& b) { return a.y < b.y; });
        std::printf("time: %.9f s .. %.9f s (%ld .. %ld ticks)\n", tMin->toa.get_seconds(), tMax->toa.get_seconds(),
                    tMin->toa.get_value(), tMax->toa.get_value());
        std::printf("x: %.5f .. %.5f px\n", xMin->x.get_px(), xMax->x.get_px());
        std::printf("y: %.5f .. %.5f px\n", yMin->y.get_px(), yMax->y.get_px());
    }
    return 0;
}

int csv(const std::string& path) {
    const auto data = PhotonFile().read_fromFile(path);
    std::printf("x_px,y_px,toa_s,toa_ticks\n");
    for (const auto& photon : data.photonEvents) {
        std::printf("%.6f,%.6f,%.10f,%ld\n", photon.x.get_px(), photon.y.get_px(), photon.toa.get_seconds(),
                    photon.toa.get_value());
    }
    return 0;
}

int png(const std::string& input, const std::string& output, std::size_t bin) {
    std::vector<std::uint32_t> counts;
    std::size_t side = 0;
    if (endsWith(input, ".kavotphot")) {
        Image_2D_Photons image(Length(8192));
        for (const auto& photon : PhotonFile().read_fromFile(input).photonEvents) {
            image.add_photonEvent<true>(photon);
        }
        counts = image.get_counts();
        side = image.nPixels_x;
    } else {
        std::ifstream stream(input, std::ios::in | std::ios::binary);
        if (!stream) {
            throw std::invalid_argument("Unable to open file \"" + input + "\" !");
        }
        side = 2048;
        counts.resize(side * side);
        stream.read(reinterpret_cast<char*>(counts.data()), static_cast<std::streamsize>(counts.size() * 4));
        if (stream.gcount() != static_cast<std::streamsize>(counts.size() * 4) || stream.peek() != EOF) {
            throw std::invalid_argument("\"" + input + "\" is not a raw 2048 x 2048 photon count image!");
        }
    }
    photonpng::write(output, photonpng::render(counts, side, side, bin));
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> args(argv + 1, argv + argc);
        if (args.size() == 2 && args[0] == "summary") {
            return summary(args[1]);
        }
        if (args.size() == 2 && args[0] == "csv") {
            return csv(args[1]);
        }
        if ((args.size() == 3 || args.size() == 4) && args[0] == "png") {
            return png(args[1], args[2], args.size() == 4 ? std::stoul(args[3]) : 1);
        }
        std::fputs(usage, stderr);
        return 1;
    } catch (const std::exception& error) {
        std::cerr << "kavotphot_info: " << error.what() << "\n";
        return 1;
    }
}
