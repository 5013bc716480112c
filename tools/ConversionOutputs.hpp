#pragma once

// The files a conversion writes: HDF5 columns of every photon measure, the .kavotphot photon file, and a TIFF of
// photon counts on the canvas. Each writes to a path or descriptor it is given (the caller makes the file appear
// complete or not at all).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Conversion.hpp"
#include "ConvertOptions.hpp"
#include "Hdf5File.hpp"
#include "PhotonFileWriter.hpp"

namespace kavot_tool {

/// `/photons/x, y, t, tof, trigger, n_hits, tot_sum, tot_max, chip` and `/triggers/t`, chunked and compressed,
/// written a batch at a time, with the units, the canvas, the layout, every setting, the program and the source
/// as attributes.
class Hdf5PhotonOutput : public ConversionOutput {
public:
    /// Writes the file at `path_`; `fd_` is a descriptor of that file, on which its disk writes are started as
    /// it grows (-1: none).
    Hdf5PhotonOutput(std::string path_,
                     const ConversionSettings& settings_,
                     Hdf5Compression compression_,
                     int fd_ = -1);
    ~Hdf5PhotonOutput() override;

    void begin(const ConversionFacts& facts) override;
    void photons(const ConvertedPhoton* first, std::size_t count) override;
    void finish(const ConversionFacts& facts,
                const kavot_tpx3spidr::SpillingList<kavot_tpx3spidr::Time>& triggers) override;

private:
    struct Open;
    /// Photons between two starts of the disk writes: about 7 MiB of columns.
    static constexpr std::uint64_t writeBack_photons = std::uint64_t{1} << 18;

    std::string path;
    const ConversionSettings& settings;
    Hdf5Compression compression;
    int fd;
    std::uint64_t sinceWriteBack = 0; ///< photons written since the disk writes were last started
    std::unique_ptr<Open> open;
};

/// The block file vundrel writes: photons on the canvas (x, y, first-hit time) and the distinct trigger times,
/// so that every reader of photon files reads it unchanged.
class PhotonFileOutput : public ConversionOutput {
public:
    /// Writes to `fd`, a seekable file open for writing and empty (not taken over).
    explicit PhotonFileOutput(int fd) : writer(fd) {}

    void photons(const ConvertedPhoton* first, std::size_t count) override;
    void finish(const ConversionFacts& facts,
                const kavot_tpx3spidr::SpillingList<kavot_tpx3spidr::Time>& triggers) override;

private:
    PhotonFileWriter writer;
};

/// Photon counts on the canvas in bins of 1/`binsPerPixel` pixel, written as a 32-bit TIFF.
class CanvasImageOutput : public ConversionOutput {
public:
    /// More counters than this are refused: 256 MiB.
    static constexpr std::uint64_t maxCounters = std::uint64_t{1} << 26;

    CanvasImageOutput(std::string path_, unsigned binsPerPixel_)
        : path(std::move(path_)), binsPerPixel(binsPerPixel_) {}

    void begin(const ConversionFacts& facts) override;
    void photons(const ConvertedPhoton* first, std::size_t count) override;
    void finish(const ConversionFacts& facts,
                const kavot_tpx3spidr::SpillingList<kavot_tpx3spidr::Time>& triggers) override;

private:
    std::string path;
    unsigned binsPerPixel;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint32_t> counts;
};

/// How the attributes name a compression.
const char* compressionName(Hdf5Compression compression);

/// One attribute of a conversion's HDF5 file: text, integer or real.
using ConversionAttribute = std::pair<std::string, std::variant<std::string, std::int64_t, double>>;

/// The attributes of a conversion's HDF5 file at its root: the program and the source, the canvas and the
/// layout, the time model, stale heartbeats and gaps, every setting, and the totals.
std::vector<ConversionAttribute>
conversion_attributes(const ConversionFacts& facts, const ConversionSettings& settings, Hdf5Compression compression);

/// Converts `line.input` into the files `line` names (the photon output, and the image when asked), each complete
/// or not at all and never written into the input; missing folders are made. As `kavot convert` does.
ConversionFacts convert_toFiles(const ConvertCommandLine& line, const ConversionHooks& hooks = {});

/// The layout as the JSON of a layout file, so that a layout can be read back from the attributes.
std::string layout_json(const kavot_tpx3spidr::ChipLayout& layout);

} // namespace kavot_tool
