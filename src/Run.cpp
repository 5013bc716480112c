#include "Run.hpp"

#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "Data_Tpx3Spidr.hpp"
#include "FileHandler_PhotonEvents.hpp"
#include "Image_2D_Photons.hpp"
#include "Logging.hpp"
#include "Parameters.hpp"
#include "Reconstruction_switch.hpp"

using namespace kavot_tpx3spidr;

namespace {

using PhotonFile = kavot::FileHandler_PhotonEvents<Length, Time, 4, 8, 2>;

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string secondsSince(std::time_t start) {
    return std::to_string(std::time(nullptr) - start);
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
        std::error_code ignored;
        if (std::filesystem::is_regular_file(path, ignored)) {
            std::filesystem::remove(path, ignored);
        }
        throw std::invalid_argument("Unable to write output file \"" + path + "\" completely; it was removed!");
    }
}

void run_processingSequence(const Parameters& parameters,
                            const ReconstructionParameters_PhotonEvents& reconstruction,
                            std::time_t start) {
    const std::string& prefix = *parameters.inputFile;
    Data_Tpx3Spidr data = parameters.useGlobalTime
                              ? Data_Tpx3Spidr::make_from_file_tpx3spidr</*useGlobalTime=*/true>(prefix)
                              : Data_Tpx3Spidr::make_from_file_tpx3spidr</*useGlobalTime=*/false>(prefix);
    logging<LogLevel::trace>(prefix + ": Finished loading input at " + secondsSince(start) + " seconds");
    logging<LogLevel::info>(prefix + ": Total number of pixel activations in file = " + std::to_string(data.size()));
    logging<LogLevel::info>(prefix +
                            ": Total number of TDC1 triggers = " + std::to_string(data.get_tdc1Triggers().size()));
    logging<LogLevel::trace>("Starting photon event reconstruction");

    // The dispatcher takes the data set by value. Nothing reads the run's own data set after this point, so
    // handing it over by move gives the same result as a copy without holding the data twice.
    const PhotonResult result = reconstruct_photonEvents_switchAlgoritms(std::move(data), parameters, reconstruction);

    if (parameters.photImgPath) {
        Image_2D_Photons image(Length(8192));
        for (const auto& photonEvent : result.photonEvents) {
            image.add_photonEvent<true>(photonEvent);
        }
        image.write_toFile_raw(*parameters.photImgPath);
    }

    logging<LogLevel::info>(prefix +
                            ": Total number of reconstructed photons = " + std::to_string(result.photonEvents.size()));

    // An output path without a directory part names a file in the working directory, which exists.
    const std::filesystem::path directory = std::filesystem::path(*parameters.outputFile).parent_path();
    if (!directory.empty()) {
        std::filesystem::create_directories(directory);
    }
    write_photonEventFile(*parameters.outputFile, result);

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
        run_processingSequence(*parameters, *reconstruction, start);
    } catch (const std::exception& error) {
        // The run's failures are std::logic_error and its kin; file system failures while creating the output
        // directory and exhausted memory are other exceptions, and they are reported the same way.
        logging<LogLevel::error>(error.what());
        return 1;
    }
    return 0;
}
