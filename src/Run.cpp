#include "Run.hpp"

#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include "Data_Tpx3Spidr.hpp"
#include "Image_2D_Photons.hpp"
#include "Logging.hpp"
#include "Parameters.hpp"
#include "PhotonEvents.hpp"
#include "PhotonFileStream.hpp"
#include "Reconstruction_switch.hpp"

using namespace kavot_tpx3spidr;
namespace fs = std::filesystem;

namespace {

/// The bin width of the photon count image: 0.125 px.
constexpr int imageResolution_raw = 8192;

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string secondsSince(std::time_t start) {
    return std::to_string(std::time(nullptr) - start);
}

std::invalid_argument incompleteOutput(const std::string& path) {
    return std::invalid_argument("Unable to write output file \"" + path + "\" completely; it was removed!");
}

void removeIfRegular(const std::string& path) {
    std::error_code ignored;
    if (fs::is_regular_file(path, ignored)) {
        fs::remove(path, ignored);
    }
}

/// Writes the photon event file. A file that could not be written completely is removed, so that no file is
/// left that could pass for a complete result; the error names the path.
void write_photonEventFile(const std::string& path, const PhotonResult& result) {
    std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
    blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(result.photonEvents));
    if (result.extTriggers) {
        blocks.push_back(std::make_unique<PhotonFile::IO_ExtTriggers>(*result.extTriggers));
    }
    std::ofstream stream(path, std::ios::out | std::ios::binary | std::ios::trunc);
    if (!stream.is_open()) {
        throw std::invalid_argument("Unable to open output file \"" + path + "\" !");
    }
    const PhotonFile::IO_File file(std::move(blocks));
    bool complete = false;
    try {
        file.write(stream);
        stream.close();
        complete = !stream.fail();
    } catch (const std::invalid_argument&) {
        complete = false;
    }
    if (!complete) {
        removeIfRegular(path);
        throw incompleteOutput(path);
    }
}

void log_totals(const std::string& prefix, std::time_t start, std::size_t activations, std::size_t triggers) {
    logging<LogLevel::trace>(prefix + ": Finished loading input at " + secondsSince(start) + " seconds");
    logging<LogLevel::info>(prefix + ": Total number of pixel activations in file = " + std::to_string(activations));
    logging<LogLevel::info>(prefix + ": Total number of TDC1 triggers = " + std::to_string(triggers));
    logging<LogLevel::trace>("Starting photon event reconstruction");
}

/// The whole file in memory: load, reconstruct, image, write.
void run_processingSequence_inMemory(const Parameters& parameters,
                                     const ReconstructionParameters_PhotonEvents& reconstruction,
                                     std::time_t start) {
    const std::string& prefix = *parameters.inputFile;
    Data_Tpx3Spidr data = parameters.useGlobalTime
                              ? Data_Tpx3Spidr::make_from_file_tpx3spidr</*useGlobalTime=*/true>(prefix)
                              : Data_Tpx3Spidr::make_from_file_tpx3spidr</*useGlobalTime=*/false>(prefix);
    log_totals(prefix, start, data.size(), data.get_tdc1Triggers().size());

    // The dispatcher takes the data set by value. Nothing reads the run's own data set after this point, so
    // handing it over by move gives the same result as a copy without holding the data twice.
    const PhotonResult result = reconstruct_photonEvents_switchAlgoritms(std::move(data), parameters, reconstruction);

    if (parameters.photImgPath) {
        Image_2D_Photons image{Length(imageResolution_raw)};
        for (const auto& photonEvent : result.photonEvents) {
            image.add_photonEvent<true>(photonEvent);
        }
        image.write_toFile_raw(*parameters.photImgPath);
    }
    logging<LogLevel::info>(prefix +
                            ": Total number of reconstructed photons = " + std::to_string(result.photonEvents.size()));

    // An output path without a directory part names a file in the working directory, which exists.
    const fs::path directory = fs::path(*parameters.outputFile).parent_path();
    if (!directory.empty()) {
        fs::create_directories(directory);
    }
    write_photonEventFile(*parameters.outputFile, result);
    logging<LogLevel::trace>(prefix + ": Finished processing in " + secondsSince(start) + " seconds");
}

// ---- The streaming run ----
//
// It produces the same log lines, files and exit status as the in-memory run, holding only a window of the
// data. What the in-memory run does after reconstruction - the image, the photon total, the output directory,
// the photon file - happens here while photons are found, and each difference in timing is made invisible:
//  - every error of the input is found by the validating pass before anything is decoded, and an unknown
//    algorithm is refused at the same point, so once photons flow nothing but a failing file system can stop
//    the run;
//  - the output directory is created and the output opened before reconstruction; a failure of either is kept
//    and reported where the in-memory run reports it, after the photon total, and the photons are still counted;
//  - the image is not written into a directory this run created (the in-memory run writes the image before it
//    creates the directory, so that write fails there, silently) nor over the output file (which the photon
//    file replaces there);
//  - an output that is the input itself, or not a regular file, is left to the in-memory run.

/// The first reordering window and the widest one tried before ordering in memory (ticks of 1.5625 ns). Real
/// readouts lag by about a millisecond at most.
constexpr long firstWindow_ticks = 1L << 21;  // 3.3 ms
constexpr long widestWindow_ticks = 1L << 27; // 0.21 s

struct StreamingSink {
    PhotonFileStream* file = nullptr;
    Image_2D_Photons* image = nullptr;
    std::size_t photons = 0;

    void push(const PhotonEvent_type& photon) {
        // Decoded positions lie within the detector, so the image's range test cannot fail here.
        if (image != nullptr) {
            image->add_photonEvent<true>(photon);
        }
        if (file != nullptr) {
            file->push(photon);
        }
        ++photons;
    }
    void reset() {
        if (image != nullptr) {
            std::fill(image->counts.begin(), image->counts.end(), 0);
        }
        if (file != nullptr) {
            file->reset();
        }
        photons = 0;
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

bool sameFile(const std::string& a, const std::string& b) {
    std::error_code error;
    return fs::exists(a, error) && fs::exists(b, error) && fs::equivalent(a, b, error);
}

/// Whether the streaming run can give the in-memory run's files for this output path.
bool streamable(const Parameters& parameters) {
    const std::string& output = *parameters.outputFile;
    std::error_code error;
    if (!fs::exists(output, error)) {
        return true;
    }
    return fs::is_regular_file(output, error) && !sameFile(output, *parameters.inputFile);
}

template <bool useGlobalTime>
void stream_reconstruction(const MappedFile& file,
                           const Tpx3Census& census,
                           Algorithm algorithm,
                           const ReconstructionParameters_PhotonEvents& reconstruction,
                           StreamingSink& sink) {
    const std::uint64_t* words = file.words();
    const std::size_t size = file.size_bytes() / 8;
    const auto consumed = [&file](std::size_t wordIndex) { file.drop_before(wordIndex); };
    for (long window = firstWindow_ticks; window <= widestWindow_ticks; window <<= 3) {
        sink.reset();
        file.restart_dropping();
        try {
            Tpx3HitStream<useGlobalTime> stream(words, size, census, window, consumed);
            reconstruct_photonEvents_into(algorithm, stream, reconstruction, sink);
            return;
        } catch (const ReorderWindowExceeded&) {
            // Start over with a wider window; the released order was not yet certain.
        }
    }
    // Too far from time order for a window (hits more than a period behind, reversed files): in memory.
    sink.reset();
    const Data_Tpx3Spidr data = Data_Tpx3Spidr::make_from_data_tpx3spidr<useGlobalTime>(words, size);
    DataSetSequence sequence(data);
    reconstruct_photonEvents_into(algorithm, sequence, reconstruction, sink);
}

void run_processingSequence_streaming(const Parameters& parameters,
                                      const ReconstructionParameters_PhotonEvents& reconstruction,
                                      std::time_t start) {
    const std::string& prefix = *parameters.inputFile;
    const std::string& output = *parameters.outputFile;
    const MappedFile file(prefix);
    if (file.size_bytes() % 8 != 0) {
        throw std::logic_error("File contains incomplete lines!");
    }
    const std::uint64_t* words = file.words();
    const std::size_t size = file.size_bytes() / 8;
    const auto consumed = [&file](std::size_t wordIndex) { file.drop_before(wordIndex); };
    const Tpx3Census census = census_tpx3(words, size, consumed);
    if (parameters.useGlobalTime) {
        (void)referenceTime_tpx3<true>(census); // refuses a file without global timestamp
    }
    log_totals(prefix, start, census.pixelCount, census.tdcCount);
    const Algorithm algorithm = algorithm_fromName(parameters.algorithm);

    std::exception_ptr outputError;
    std::vector<fs::path> createdDirectories;
    std::optional<PhotonFileStream> photonFile;
    const fs::path directory = fs::path(output).parent_path();
    try {
        if (!directory.empty()) {
            createdDirectories = missingDirectories(directory);
            fs::create_directories(directory);
        }
        const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0) {
            throw std::invalid_argument("Unable to open output file \"" + output + "\" !");
        }
        photonFile.emplace(fd);
    } catch (...) {
        outputError = std::current_exception();
    }
    std::optional<Image_2D_Photons> image;
    if (parameters.photImgPath) {
        image.emplace(Length(imageResolution_raw));
    }
    StreamingSink sink{photonFile ? &*photonFile : nullptr, image ? &*image : nullptr, 0};
    try {
        if (parameters.useGlobalTime) {
            stream_reconstruction<true>(file, census, algorithm, reconstruction, sink);
        } else {
            stream_reconstruction<false>(file, census, algorithm, reconstruction, sink);
        }
        if (photonFile && reconstruction.TDC1) {
            photonFile->beginTriggers(census.tdcCount);
            const auto onTrigger = [&](Time trigger) { photonFile->pushTrigger(trigger); };
            file.restart_dropping();
            if (parameters.useGlobalTime) {
                for_eachTdcTrigger_tpx3<true>(words, size, census, onTrigger, consumed);
            } else {
                for_eachTdcTrigger_tpx3<false>(words, size, census, onTrigger, consumed);
            }
        }
    } catch (...) {
        // The in-memory run would not have reached its output file: none is left.
        if (photonFile) {
            photonFile.reset();
            removeIfRegular(output);
        }
        throw;
    }

    if (image) {
        std::error_code error;
        const fs::path imageDirectory =
            fs::absolute(fs::path(*parameters.photImgPath).parent_path(), error).lexically_normal();
        const bool inCreatedDirectory =
            std::find(createdDirectories.begin(), createdDirectories.end(), imageDirectory) != createdDirectories.end();
        if (!inCreatedDirectory && !sameFile(*parameters.photImgPath, output)) {
            image->write_toFile_raw(*parameters.photImgPath);
        }
        image.reset();
    }
    logging<LogLevel::info>(prefix + ": Total number of reconstructed photons = " + std::to_string(sink.photons));
    if (outputError) {
        std::rethrow_exception(outputError);
    }
    if (!photonFile->finish()) {
        removeIfRegular(output);
        throw incompleteOutput(output);
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
        parameters.emplace(argc, argv);
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
        if (streamable(*parameters)) {
            run_processingSequence_streaming(*parameters, *reconstruction, start);
        } else {
            run_processingSequence_inMemory(*parameters, *reconstruction, start);
        }
    } catch (const std::bad_alloc&) {
        // A recording too far from time order to stream is ordered in memory, which a large one may not fit.
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
