// The program as a user runs it: exit status, standard output, standard error and the files it leaves.

#include <filesystem>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PhotonEvents.hpp"
#include "TestSupport.hpp"
#include "Tpx3Generator.hpp"
#include "Units.hpp"

using namespace testsupport;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

using kavot_tpx3spidr::PhotonFile;

ProcessResult
vundrel(const std::vector<std::string>& args, const std::string& dir = ".", const std::string& tz = "UTC0") {
    return runProcess(VUNDREL_BINARY, args, dir, tz);
}

/// The messages of the log lines in `text`, after checking each line's label and time stamp.
std::vector<std::string> messages(const std::string& text, const char* labelPattern) {
    static const std::string stamp = R"( \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC[+-]\d{4}: )";
    const std::regex line(std::string("^") + labelPattern + stamp.substr(1) + "(.*)$");
    std::vector<std::string> result;
    for (const auto& l : lines(text)) {
        std::smatch match;
        EXPECT_TRUE(std::regex_match(l, match, line)) << "not a log line: " << l;
        result.push_back(match.size() > 1 ? match[1].str() : l);
    }
    return result;
}
std::vector<std::string> errors(const std::string& text) {
    return messages(text, "ERROR:   ");
}
std::vector<std::string> progress(const std::string& text) {
    return messages(text, "(?:info:    |trace:   )");
}

std::string
usage(const std::string& program, const std::string& dSpace, const std::string& dTime, const std::string& nPxMin) {
    return "Tamsel - Quillon Vundrel for Timepix3 SPIDR\n"
           "Usage: " +
           program +
           " [OPTIONS]\n"
           "Example: " +
           program +
           " -s 10 -t 1e-6 -i filename.tpx3 -o filename.kavotphot\n"
           "\n"
           "OPTIONS\n"
           "  -h, --help               Print out this help\n"
           "      --license            Summary license information\n"
           "      --version            Version number\n"
           "\n"
           "  -i, --inputFile          Path to the input file, must not contain commas\n"
           "  -o, --outputFile         Path (including file name) under which the oputput should be saved, must not "
           "contain commas\n"
           "  -f, --paramsFile         Path to a .json file where processing parameters are defined  -s, --dspace      "
           "       Distance in space for pixel search [px] (default: " +
           dSpace +
           ")\n"
           "  -t, --dtime              Distance in time for pixel search [s] (default: " +
           dTime +
           ")\n"
           "  -k, --nPxMin             Minimum number of pixels in a photon event (default: " +
           nPxMin +
           ")\n"
           "\n"
           "  -T, --TDC1               Use TDC1 as trigger input (TDC1 is ignored by default)\n"
           "\n";
}

/// A small generated recording in `dir`.
std::string sampleFile(const TempDir& dir, std::uint64_t hits = 20000) {
    tpx3gen::Settings settings;
    settings.hits = hits;
    settings.disorder_seconds = 2e-7;
    const std::string path = dir / "sample.tpx3";
    writeWords(path, tpx3gen::generate(settings).words);
    return path;
}

} // namespace

TEST(Program, TextOptionsPrintOnStandardErrorAndExitZero) {
    const std::string p = VUNDREL_BINARY;
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const Case cases[] = {
        {{"--help"}, usage(p, "2", "1e-07", "2")},
        {{"-h"}, usage(p, "2", "1e-07", "2")},
        {{"-s", "5", "-h"}, usage(p, "5", "1e-07", "2")},
        {{"-h", "-s", "5"}, usage(p, "2", "1e-07", "2")},
        {{"-t", "2.5e-6", "-k", "7", "--help"}, usage(p, "2", "2.5e-06", "7")},
        {{"-k", "-1", "-h"}, usage(p, "2", "1e-07", "-1")}, // %ld shows the wrapped 64-bit value as signed
        {{"--version"}, "1.0.0\n"},
        {{"--vers"}, "1.0.0\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.front());
        const auto result = vundrel(c.args);
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_EQ(result.err, c.err);
    }
    const auto license = vundrel({"--license"});
    EXPECT_EQ(license.status, 0);
    EXPECT_THAT(license.out, IsEmpty());
    EXPECT_THAT(license.err, HasSubstr("License"));
}

TEST(Program, NameChecksLogOneErrorAndExitOne) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const Case cases[] = {
        {{}, "No file supplied! Exiting..."},
        {{"-o", "out.kavotphot"}, "No file supplied! Exiting..."},
        {{"-i", "run.TPX3", "-o", "out.kavotphot"}, "Input file must be a .tpx3 file! Exiting..."},
        {{"-i", "tpx3"}, "Input file must be a .tpx3 file! Exiting..."},
        {{"-i", "missing.tpx3"}, "No output destination specified! Exiting..."},
        {{"-i", "missing.tpx3", "-o", "out.kavotphot.bak"}, "Output file must be a .kavotphot file! Exiting..."},
        {{"-i", "missing.tpx3", "-o", "out.KAVOTPHOT"}, "Output file must be a .kavotphot file! Exiting..."},
        // The bare suffixes pass the name checks; the run then fails on the missing input.
        {{"-i", ".tpx3", "-o", ".kavotphot"}, "Unable to open file \".tpx3\" !"},
        {{"-i", "missing.tpx3", "-o", "out.kavotphot"}, "Unable to open file \"missing.tpx3\" !"},
    };
    const TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        const auto result = vundrel(c.args, dir.path.string());
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_THAT(errors(result.err), ElementsAre(c.message));
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.path)) << "a failed name check must not write anything";
}

TEST(Program, SettingErrorsLogOneErrorAndExitOne) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const Case cases[] = {
        {{"-k", "abc"}, "stoul"},
        {{"-s", "1e999"}, "stod"},
        {{"-s", "abc", "-i", "a.tpx3"}, "stod"},
        {{"--verbose", "4294967296"}, "stoi"},
        {{"-i", "a.tpx3", "stray", "more"}, "excess argument: stray !"},
        {{"--dSpace", "3", "3"}, "excess argument: 3 !"},
        {{"-t", "1e10", "-i", "a.tpx3", "-o", "a.kavotphot"}, "Value 10000000000.000000 s out of range!"},
        {{"-t", "nan", "-i", "a.tpx3", "-o", "a.kavotphot"}, "Value nan s out of range!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        const auto result = vundrel(c.args);
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(errors(result.err), ElementsAre(c.message));
    }
    // An unknown option takes no argument: its diagnostic comes first, then the stray value ends the run.
    const auto misspelt = vundrel({"--dspace", "3"});
    EXPECT_EQ(misspelt.status, 1);
    const auto misspeltLines = lines(misspelt.err);
    ASSERT_EQ(misspeltLines.size(), 2u);
    EXPECT_THAT(misspeltLines[0], HasSubstr("unrecognized option '--dspace'"));
    EXPECT_THAT(errors(misspeltLines[1]), ElementsAre("excess argument: 3 !"));
    // The usage text comes first, then the error that ends the run.
    const auto helpThenStray = vundrel({"-h", "extra"});
    EXPECT_EQ(helpThenStray.status, 1);
    const std::string text = usage(VUNDREL_BINARY, "2", "1e-07", "2");
    ASSERT_EQ(helpThenStray.err.substr(0, text.size()), text);
    EXPECT_THAT(errors(helpThenStray.err.substr(text.size())), ElementsAre("excess argument: extra !"));
}

TEST(Program, RejectedOptionsEndTheRunWithStatusZero) {
    const std::vector<std::vector<std::string>> cases = {
        {"--dspace=3"},         {"--dtime=1e-6"}, {"--ver"}, // ambiguous: version, verbose
        {"-x", "-i", "a.tpx3"}, {"-i"},           {"--TDC1=yes"},
    };
    for (const auto& args : cases) {
        SCOPED_TRACE(args.front());
        const auto result = vundrel(args);
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_THAT(result.err, Not(IsEmpty())) << "getopt's diagnostic";
        EXPECT_THAT(result.err, Not(HasSubstr("ERROR:")));
    }
}

TEST(Program, ConvertsARecordingAndLogsEachStepInOrder) {
    const TempDir dir;
    const std::string input = sampleFile(dir);
    const auto result = vundrel({"-i", input, "-o", "nested/dirs/out.kavotphot", "-T"}, dir.path.string());
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, IsEmpty());
    const auto log = progress(result.out);
    ASSERT_EQ(log.size(), 6u);
    const auto photons = PhotonFile().read_fromFile(dir / "nested/dirs/out.kavotphot");
    ASSERT_TRUE(photons.extTriggers.has_value());
    EXPECT_EQ(log[0], input + ": Finished loading input at 0 seconds");
    EXPECT_EQ(log[1], input + ": Total number of pixel activations in file = 20000");
    EXPECT_EQ(log[2], input + ": Total number of TDC1 triggers = " + std::to_string(photons.extTriggers->size()));
    EXPECT_EQ(log[3], "Starting photon event reconstruction");
    EXPECT_EQ(log[4],
              input + ": Total number of reconstructed photons = " + std::to_string(photons.photonEvents.size()));
    EXPECT_EQ(log[5], input + ": Finished processing in 0 seconds");
    EXPECT_GT(photons.photonEvents.size(), 1000u);
    const auto labels = lines(result.out);
    EXPECT_EQ(labels[0].substr(0, 9), "trace:   ");
    EXPECT_EQ(labels[1].substr(0, 9), "info:    ");
}

TEST(Program, LogThresholdSelectsLevelsAndZoneShowsInStamp) {
    const TempDir dir;
    const std::string input = sampleFile(dir, 2000);
    struct Case {
        std::string verbose;
        std::size_t outLines;
    };
    for (const Case& c : {Case{"4", 6}, Case{"3", 3}, Case{"2", 3}, Case{"1", 0}, Case{"-1", 0}}) {
        SCOPED_TRACE(c.verbose);
        const auto result = vundrel({"--verbose", c.verbose, "-i", input, "-o", "o.kavotphot"}, dir.path.string());
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(lines(result.out).size(), c.outLines);
    }
    const auto quiet = vundrel({"--verbose=-2", "-i", "x.tpx3", "-o", "o.kavotphot"}, dir.path.string());
    EXPECT_EQ(quiet.status, 1);
    EXPECT_THAT(quiet.err, IsEmpty());
    const auto west = vundrel({"-i", "x.tpx3"}, dir.path.string(), "EST5");
    EXPECT_THAT(west.err, HasSubstr(" UTC-0500: No output destination specified! Exiting..."));
    const auto utc = vundrel({"-i", "x.tpx3"}, dir.path.string(), "UTC0");
    EXPECT_THAT(utc.err, HasSubstr(" UTC+0000: No output destination"));
}

TEST(Program, FailuresAfterLoadingKeepEarlierFilesAndWriteNoPhotonFile) {
    const TempDir dir;
    const std::string input = sampleFile(dir, 2000);
    const auto bogus = vundrel({"-i", input, "-o", "o.kavotphot", "--algorithm", "bogus"}, dir.path.string());
    EXPECT_EQ(bogus.status, 1);
    EXPECT_THAT(errors(bogus.err), ElementsAre("Unrecognized algorithmbogus!"));
    EXPECT_EQ(progress(bogus.out).size(), 4u) << "loading, both totals and the start of reconstruction";
    EXPECT_FALSE(std::filesystem::exists(dir / "o.kavotphot"));

    const auto empty = vundrel({"-i", input, "-o", "o.kavotphot", "--algorithm="}, dir.path.string());
    EXPECT_THAT(errors(empty.err), ElementsAre("Unrecognized algorithm!"));

    // Without a global timestamp the default mode refuses the file; raw times decode it.
    writeWords(dir / "noglobal.tpx3", chunk({pixelWord(1, 1, 100, 5), pixelWord(1, 2, 101, 5)}));
    const auto refused = vundrel({"-i", "noglobal.tpx3", "-o", "n.kavotphot"}, dir.path.string());
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(errors(refused.err), ElementsAre("Supplied file does not contain a global timestamp!"));
    const auto raw = vundrel({"-i", "noglobal.tpx3", "-o", "n.kavotphot", "--globalTime_ignore"}, dir.path.string());
    EXPECT_EQ(raw.status, 0);
    EXPECT_EQ(PhotonFile().read_fromFile(dir / "n.kavotphot").photonEvents.size(), 1u);
}

TEST(Program, UnwritableOutputIsAnErrorAndLeavesNoCompleteLookingFile) {
    const TempDir dir;
    const std::string input = sampleFile(dir, 2000);
    std::filesystem::create_directory(dir / "taken.kavotphot");
    const auto directory = vundrel({"-i", input, "-o", "taken.kavotphot"}, dir.path.string());
    EXPECT_EQ(directory.status, 1);
    EXPECT_THAT(errors(directory.err), ElementsAre("Unable to open output file \"taken.kavotphot\" !"));

    std::filesystem::create_symlink("/dev/full", dir / "full.kavotphot");
    const auto full = vundrel({"-i", input, "-o", "full.kavotphot"}, dir.path.string());
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(errors(full.err),
                ElementsAre("Unable to write output file \"full.kavotphot\" completely; it was removed!"));

    writeFile(dir / "blocker", "a file where a directory should be");
    const auto parent = vundrel({"-i", input, "-o", "blocker/out.kavotphot"}, dir.path.string());
    EXPECT_EQ(parent.status, 1);
    EXPECT_THAT(parent.err, HasSubstr("ERROR:"));
}

TEST(Program, WritesTheImageBeforeThePhotonFile) {
    const TempDir dir;
    const std::string input = sampleFile(dir, 5000);
    const auto result = vundrel({"-i", input, "-o", "out.kavotphot", "--photImgPath", "image.raw"}, dir.path.string());
    ASSERT_EQ(result.status, 0) << result.err;
    const std::string image = readFile(dir / "image.raw");
    ASSERT_EQ(image.size(), 16777216u);
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < image.size(); i += 4) {
        total += static_cast<std::uint32_t>(kavot::load_littleEndian<4>(image.data() + i));
    }
    EXPECT_EQ(total, PhotonFile().read_fromFile(dir / "out.kavotphot").photonEvents.size());
}

TEST(Program, HostileInputsEndWithOneClearErrorOrTheDefinedResult) {
    const TempDir dir;
    const std::string input = sampleFile(dir, 3000);
    const std::string whole = readFile(input);
    writeFile(dir / "truncated.tpx3", whole.substr(0, (whole.size() / 2) & ~std::size_t{7}));
    writeFile(dir / "odd.tpx3", whole.substr(0, 13));
    std::mt19937_64 random(9);
    std::string noise(4096, '\0');
    for (auto& byte : noise) {
        byte = static_cast<char>(random());
    }
    writeFile(dir / "random.tpx3", noise);
    std::filesystem::create_directory(dir / "folder.tpx3");
    std::filesystem::create_symlink("/dev/zero", dir / "endless.tpx3");
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string error; // empty: a complete run
    };
    const Case cases[] = {
        {{"-i", "truncated.tpx3"}, 1, "End of data reached before block is complete!"},
        {{"-i", "odd.tpx3"}, 1, "File contains incomplete lines!"},
        {{"-i", "random.tpx3"}, 1, "Invalid header entry!"},
        {{"-i", "folder.tpx3"}, 1, "Unable to open file \"folder.tpx3\" !"},
        {{"-i", "endless.tpx3"}, 1, "Unable to open file \"endless.tpx3\" !"},
        {{"-i", input, "-t", "inf"}, 1, "Value inf s out of range!"},
        {{"-i", input, "-t", "-inf"}, 1, "Value -inf s out of range!"},
        {{"-i", input, "-s", "nan"}, 0, ""},
        {{"-i", input, "-s", "inf", "--algorithm", "forwardChain_pixelBuildup"}, 0, ""},
        {{"-i", input, "-s", "-1e300", "--algorithm", "checkNextOnly"}, 0, ""},
        {{"-i", input, "-t", "-1e-6"}, 0, ""},
        {{"-i", input, "-m", "nan", "-M", "-inf"}, 0, ""},
        {{"-i", input, "-k", "18446744073709551615", "-K", "0"}, 0, ""},
        {{"-i", input, "-f", "/dev/zero"}, 1, "Unable to open parameter file \"/dev/zero\" !"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"-o", "out.kavotphot", "--verbose", "1"});
        std::filesystem::remove(dir / "out.kavotphot");
        const auto result = vundrel(args, dir.path.string());
        EXPECT_EQ(result.status, c.status);
        if (c.error.empty()) {
            EXPECT_THAT(result.err, IsEmpty());
            EXPECT_NO_THROW((void)PhotonFile().read_fromFile(dir / "out.kavotphot"));
        } else {
            EXPECT_THAT(errors(result.err), ElementsAre(c.error));
            EXPECT_FALSE(std::filesystem::exists(dir / "out.kavotphot"));
        }
    }
}
