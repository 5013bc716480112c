#include "Run.hpp"

#include <algorithm>
#include <ctime>
#include <exception>
#include <filesystem>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include <unistd.h>

#include "Data_Tpx3Spidr.hpp"
#include "Image_2D_Photons.hpp"
#include "Logging.hpp"
#include "Parameters.hpp"
#include "PhotonFileWriter.hpp"
#include "ProgressLine.hpp"
#include "Reconstruction_switch.hpp"
#include "ReplacingFile.hpp"
#include "RunResources.hpp"
#include "Tpx3Parts.hpp"

using namespace kavot_tpx3spidr;
namespace fs = std::filesystem;

namespace {

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string secondsSince(std::time_t start) {
    return std::to_string(std::time(nullptr) - start);
}

/// Every photon of the run goes to the photon file and the image as it is found, and tells the progress line
/// (if any) how far the run has come.
struct PhotonSink {
    using Record = PhotonEvent_type;

    PhotonFileWriter* file = nullptr;
    Image_2D_Photons* image = nullptr;
    ProgressLine* progress = nullptr;
    std::size_t photons = 0;

    /// Photons between two looks at the clock for the progress line.
    static constexpr std::size_t progress_stride = 4096;

    void push(const PhotonEvent_type& photon) {
        if (image != nullptr) {
            image->add_photonEvent<true>(photon);
        }
        if (file != nullptr) {
            file->push(photon);
        }
        ++photons;
        if (progress != nullptr && photons % progress_stride == 0) [[unlikely]] {
            progress->photonAt(photon.toa.get_value(), ProgressLine::Clock::now());
        }
    }
    /// The same for consecutive photons, which the file takes in one go.
    void push_all(std::span<const PhotonEvent_type> batch) {
        if (batch.empty()) {
            return;
        }
        if (image != nullptr) {
            for (const PhotonEvent_type& photon : batch) {
                image->add_photonEvent<true>(photon);
            }
        }
        if (file != nullptr) {
            file->push_all(batch);
        }
        const std::size_t before = photons;
        photons += batch.size();
        if (progress != nullptr && photons / progress_stride != before / progress_stride) {
            progress->photonAt(batch.back().toa.get_value(), ProgressLine::Clock::now());
        }
    }
};

/// The directories from `directory` up to the first one that exists, absolute: those create_directories makes.
std::vector<fs::path> missingDirectories(const fs::path& directory) {
    std::vector<fs::path> missing;
    std::error_code error;
    for (fs::path level = fs::absolute(directory, error).lexically_normal();
         !level.empty() && !fs::exists(level, error); level = level.parent_path()) {
        missing.push_back(level);
        if (level == level.parent_path()) {
            break;
        }
    }
    return missing;
}

/// The photon file's destination, made ready before the photons are found: its directory is created and a
/// file opened to write them into. A failure of either is kept and reported where a failed output is reported,
/// after the photon total; the photons are still found and counted.
struct Output {
    explicit Output(const std::string& path, const Tpx3InputFile& input) {
        try {
            // An output path without a directory part names a file in the working directory, which exists.
            const fs::path directory = fs::path(path).parent_path();
            if (!directory.empty()) {
                createdDirectories = missingDirectories(directory);
                fs::create_directories(directory);
            }
            file.emplace(path, input.get_device(), input.get_inode());
            writer.emplace(file->fd());
        } catch (...) {
            error = std::current_exception();
        }
    }

    /// The image is written before the output directory is created: an image that would lie in a directory
    /// the run creates for the output is therefore not written (silently, as a failed image write is).
    [[nodiscard]] bool holdsImage(const std::string& imagePath) const {
        std::error_code ignored;
        const fs::path imageDirectory = fs::absolute(fs::path(imagePath).parent_path(), ignored).lexically_normal();
        return std::find(createdDirectories.begin(), createdDirectories.end(), imageDirectory) ==
               createdDirectories.end();
    }

    std::vector<fs::path> createdDirectories;
    std::optional<ReplacingFile> file;
    std::optional<PhotonFileWriter> writer;
    std::exception_ptr error;
};

/// The run: census (validation, totals, trigger times), the activations in time order, the chosen algorithm,
/// and every photon into the photon file and the image as it is found.
template <bool useGlobalTime>
void run_processingSequence(const Parameters& parameters,
                            const ReconstructionParameters_PhotonEvents& reconstruction,
                            std::time_t start) {
    const std::string& prefix = *parameters.inputFile;
    const std::string& outputPath = *parameters.outputFile;
    const Tpx3InputFile input(prefix);
    const unsigned workers = usableCpus();
    const Tpx3Census census = census_tpx3<useGlobalTime>(input, spillFolder(outputPath), workers > 1);
    logging<LogLevel::trace>(prefix + ": Finished loading input at " + secondsSince(start) + " seconds");
    logging<LogLevel::info>(prefix +
                            ": Total number of pixel activations in file = " + std::to_string(census.pixelCount));
    logging<LogLevel::info>(prefix + ": Total number of TDC1 triggers = " + std::to_string(census.tdcCount));
    logging<LogLevel::trace>("Starting photon event reconstruction");
    const Algorithm algorithm = algorithm_fromName(parameters.algorithm);

    Output output(outputPath, input);
    std::optional<Image_2D_Photons> image;
    if (parameters.photImgPath) {
        image.emplace(Image_2D_Photons::run_resolution);
    }
    // Only a terminal shows the progress line; it is gone before the next log line (also when the clustering
    // fails: it ends with this scope's unwinding, before the error is logged).
    std::optional<ProgressLine> progress;
    if (isatty(STDERR_FILENO) == 1) {
        progress.emplace(STDERR_FILENO, census, ProgressLine::Clock::now());
    }
    PhotonSink sink{output.writer ? &*output.writer : nullptr, image ? &*image : nullptr,
                    progress ? &*progress : nullptr, 0};
    const std::vector<Tpx3Part> parts = workers > 1 ? plan_parts(census, partSize_hits(census)) : Tpx3Part::whole();
    cluster_inParts(
        input, census, Tpx3ScaleDecoding<useGlobalTime>(census), parts, reconstruction.dTime.get_value(), workers,
        spillFolder(outputPath), waitingHits_limit,
        [&](auto& sequence, auto& photons) {
            reconstruct_photonEvents_into(algorithm, sequence, reconstruction, photons);
        },
        sink);
    progress.reset();
    input.check_unchanged();
    if (output.writer && reconstruction.TDC1) {
        output.writer->write_triggers(census.tdcTriggers);
    }

    if (image && output.holdsImage(*parameters.photImgPath)) {
        image->write_toFile_raw(*parameters.photImgPath, input.get_device(), input.get_inode());
    }
    image.reset();
    logging<LogLevel::info>(prefix + ": Total number of reconstructed photons = " + std::to_string(sink.photons));
    if (output.error) {
        std::rethrow_exception(output.error);
    }
    if (!output.writer->finish() || !output.file->commit()) {
        throw std::invalid_argument("Unable to write output file \"" + outputPath + "\" completely; it was removed!");
    }
    logging<LogLevel::trace>(prefix + ": Finished processing in " + secondsSince(start) + " seconds");
}

} // namespace

int run_vundrel(int argc, char** argv) {
    const std::time_t start = std::time(nullptr);

    // Errors while the settings are read (bad numbers, stray arguments, parameter files, a dTime out of range)
    // are reported like the failures of the run itself: one error line with the message and status 1.
    std::optional<Parameters> parameters;
    std::optional<ReconstructionParameters_PhotonEvents> reconstruction;
    try {
        parameters.emplace(argc, argv, logLevel);
        if (parameters->exitEarly) {
            return 0;
        }
        reconstruction = make_reconstructionParameters(*parameters);
    } catch (const std::exception& error) {
        logging<LogLevel::error>(error.what());
        return 1;
    }

    try {
        if (!parameters->inputFile) {
            logging<LogLevel::error>("No file supplied! Exiting...");
            return 1;
        }
        if (!endsWith(*parameters->inputFile, ".tpx3")) {
            logging<LogLevel::error>("Input file must be a .tpx3 file! Exiting...");
            return 1;
        }
        if (!parameters->outputFile) {
            logging<LogLevel::error>("No output destination specified! Exiting...");
            return 1;
        }
        if (!endsWith(*parameters->outputFile, ".kavotphot")) {
            logging<LogLevel::error>("Output file must be a .kavotphot file! Exiting...");
            return 1;
        }
        if (parameters->useGlobalTime) {
            run_processingSequence</*useGlobalTime=*/true>(*parameters, *reconstruction, start);
        } else {
            run_processingSequence</*useGlobalTime=*/false>(*parameters, *reconstruction, start);
        }
    } catch (const std::bad_alloc&) {
        logging<LogLevel::error>("Not enough memory to process \"" + *parameters->inputFile + "\" !");
        return 1;
    } catch (const std::exception& error) {
        // The run's failures are std::logic_error and its kin; file system failures while creating the output
        // directory are other exceptions, and they are reported the same way.
        logging<LogLevel::error>(error.what());
        return 1;
    }
    return 0;
}
