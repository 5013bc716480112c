#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Logging.hpp"
#include "Parameters.hpp"
#include "TestSupport.hpp"

using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

/// Builds Parameters from the words after the program name (getopt permutes argv, so it gets a copy).
Parameters parse(std::vector<std::string> args) {
    args.insert(args.begin(), "vundrel");
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    return Parameters(static_cast<int>(args.size()), argv.data());
}

class ParametersTest : public ::testing::Test {
protected:
    void SetUp() override { logLevel = 4; }
    void TearDown() override { logLevel = 4; }
    testsupport::TempDir dir;
    std::string json(const std::string& text) {
        const std::string path = dir / ("p" + std::to_string(++files) + ".json");
        testsupport::writeFile(path, text);
        return path;
    }
    int files = 0;
};

} // namespace

TEST_F(ParametersTest, DefaultsWithoutArguments) {
    const Parameters p = parse({});
    EXPECT_FALSE(p.exitEarly);
    EXPECT_FALSE(p.inputFile.has_value());
    EXPECT_FALSE(p.outputFile.has_value());
    EXPECT_FALSE(p.photImgPath.has_value());
    EXPECT_EQ(p.dSpace, 2.0);
    EXPECT_EQ(p.dTime, 1e-7);
    EXPECT_EQ(p.nPxMin, 2u);
    EXPECT_EQ(p.nPxMax, 200u);
    EXPECT_EQ(p.weightMin, 1.0);
    EXPECT_EQ(p.weightMax, 5000.0);
    EXPECT_FALSE(p.TDC1);
    EXPECT_EQ(p.algorithm, "default");
    EXPECT_TRUE(p.useGlobalTime);
}

TEST_F(ParametersTest, OptionsSetTheirFieldsInCommandLineOrder) {
    const Parameters p = parse({"-i",
                                "a.tpx3",
                                "-i",
                                "b.tpx3",
                                "--outputFile=o.kavotphot",
                                "--dS",
                                "3px",
                                "-t",
                                "1e-6",
                                "-k",
                                "2.5",
                                "-K",
                                "-1",
                                "-m",
                                "10",
                                "-M",
                                "20",
                                "-T",
                                "--photImgPath",
                                "",
                                "--algorithm",
                                "checkNextOnly",
                                "--globalTime_ignore"});
    EXPECT_FALSE(p.exitEarly);
    EXPECT_EQ(p.inputFile, "b.tpx3");
    EXPECT_EQ(p.outputFile, "o.kavotphot");
    EXPECT_EQ(p.dSpace, 3.0);
    EXPECT_EQ(p.dTime, 1e-6);
    EXPECT_EQ(p.nPxMin, 2u);
    EXPECT_EQ(p.nPxMax, std::numeric_limits<std::uint64_t>::max()); // stoul wraps negative input
    EXPECT_EQ(p.weightMin, 10.0);
    EXPECT_EQ(p.weightMax, 20.0);
    EXPECT_TRUE(p.TDC1);
    EXPECT_EQ(p.photImgPath, "");
    EXPECT_EQ(p.algorithm, "checkNextOnly");
    EXPECT_FALSE(p.useGlobalTime);
}

TEST_F(ParametersTest, DoubleDashEndsOptionsAndLeavesAStrayArgument) {
    EXPECT_THAT(
        [] {
            parse({"-s", "4", "--", "-s"});
        },
        ThrowsMessage<std::invalid_argument>(StrEq("excess argument: -s !")));
    EXPECT_THAT(
        [] {
            parse({"first", "-T", "second"});
        },
        ThrowsMessage<std::invalid_argument>(StrEq("excess argument: first !")));
}

TEST_F(ParametersTest, ConversionFailuresCarryTheConversionName) {
    EXPECT_THAT([] { parse({"-k", "abc"}); }, ThrowsMessage<std::invalid_argument>(StrEq("stoul")));
    EXPECT_THAT([] { parse({"-s", "abc"}); }, ThrowsMessage<std::invalid_argument>(StrEq("stod")));
    EXPECT_THAT([] { parse({"-s", "1e999"}); }, ThrowsMessage<std::out_of_range>(StrEq("stod")));
    EXPECT_THAT([] { parse({"-m", "1e-400"}); }, ThrowsMessage<std::out_of_range>(StrEq("stod")));
    EXPECT_THAT([] { parse({"-K", "99999999999999999999"}); }, ThrowsMessage<std::out_of_range>(StrEq("stoul")));
    EXPECT_THAT([] { parse({"--verbose", "4294967296"}); }, ThrowsMessage<std::out_of_range>(StrEq("stoi")));
    EXPECT_THAT([] { parse({"--verbose", "x"}); }, ThrowsMessage<std::invalid_argument>(StrEq("stoi")));
}

TEST_F(ParametersTest, VerboseWritesTheLogThresholdOnly) {
    const Parameters p = parse({"--verbose", "-7", "--verb=3"});
    EXPECT_EQ(logLevel, 3);
    EXPECT_FALSE(p.exitEarly);
}

TEST_F(ParametersTest, ParameterFileIsReadWhereItsOptionStands) {
    const std::string file = json(R"({"vundrel": {"dSpace": 2.5, "dTime": 5e-7, "nPxMin": 3, "nPxMax": 100,
                                      "TDC1": true, "algorithm": "checkNextOnly"}, "other": 1})");
    const Parameters all = parse({"-f", file});
    EXPECT_EQ(all.dSpace, 2.5);
    EXPECT_EQ(all.dTime, 5e-7);
    EXPECT_EQ(all.nPxMin, 3u);
    EXPECT_EQ(all.nPxMax, 100u);
    EXPECT_TRUE(all.TDC1);
    EXPECT_EQ(all.algorithm, "checkNextOnly");

    EXPECT_EQ(parse({"-s", "9", "-f", file}).dSpace, 2.5);
    EXPECT_EQ(parse({"-f", file, "-s", "9"}).dSpace, 9.0);
    const std::string noDSpace = json(R"({"vundrel": {"dspace": 7, "TDC1": false}})");
    EXPECT_EQ(parse({"-s", "9", "--paramsFile", noDSpace}).dSpace, 9.0);
    EXPECT_EQ(parse({"-f", noDSpace, "-s", "9"}).dSpace, 9.0);
    EXPECT_FALSE(parse({"-T", "-f", noDSpace}).TDC1) << "the file can clear what the command line set";
    EXPECT_EQ(parse({"-f", file, "-f", json(R"({"vundrel": {"nPxMin": 8}})")}).nPxMin, 8u);
    EXPECT_EQ(parse({"-f", json(R"({"vundrel": {"dSpace": 3}})")}).dSpace, 3.0);
    const Parameters unchanged = parse({"-f", json(R"({"vundrel": {}})")});
    EXPECT_EQ(unchanged.dSpace, 2.0);
    EXPECT_EQ(unchanged.algorithm, "default");
    EXPECT_EQ(parse({"-f", json(R"({"vundrel": {"nPxMin": 18446744073709551615}})")}).nPxMin,
              std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(parse({"-f", json(R"({"vundrel": {"algorithm": ""}})")}).algorithm, "");
    // The first of two equal names counts, at both levels.
    const Parameters twice = parse({"-f", json(R"({"vundrel": {"nPxMin": 4, "nPxMin": 5}, "vundrel": 1})")});
    EXPECT_EQ(twice.nPxMin, 4u);
}

TEST_F(ParametersTest, ParameterFileErrorsNameTheKeyOrTheFile) {
    struct Case {
        std::string text;
        std::string message;
    };
    const Case cases[] = {
        {R"({"other": {}})", "Key \"vundrel\" missing!"},
        {R"({"vundrel": [1]})", "Key \"vundrel\" expected to be a JSON Object!"},
        {R"({"vundrel": {"nPxMin": 2.0}})", "Key \"nPxMin\" expected to be a 64 bit unsigned int!"},
        {R"({"vundrel": {"nPxMin": -1}})", "Key \"nPxMin\" expected to be a 64 bit unsigned int!"},
        {R"({"vundrel": {"nPxMax": 1e3}})", "Key \"nPxMax\" expected to be a 64 bit unsigned int!"},
        {R"({"vundrel": {"nPxMin": 18446744073709551616}})", "Key \"nPxMin\" expected to be a 64 bit unsigned int!"},
        {R"({"vundrel": {"dSpace": "3"}})", "Key \"dSpace\" expected to be a double!"},
        {R"({"vundrel": {"dTime": null}})", "Key \"dTime\" expected to be a double!"},
        {R"({"vundrel": {"TDC1": 1}})", "Key \"TDC1\" expected to be a boolean!"},
        {R"({"vundrel": {"algorithm": 5}})", "Key \"algorithm\" expected to be a string!"},
        // dSpace is read before nPxMin, so its error wins.
        {R"({"vundrel": {"nPxMin": 4, "dSpace": true}})", "Key \"dSpace\" expected to be a double!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const std::string file = json(c.text);
        EXPECT_THAT([&] { parse({"-f", file}); }, ThrowsMessage<std::invalid_argument>(StrEq(c.message)));
    }
    const std::string missing = dir / "missing.json";
    EXPECT_THAT(
        [&] {
            parse({"-f", missing});
        },
        ThrowsMessage<std::invalid_argument>(StrEq("Unable to open parameter file \"" + missing + "\" !")));
    const std::string broken = json(R"({"vundrel": {"dSpace": 2,}})");
    EXPECT_THAT(
        [&] {
            parse({"-f", broken});
        },
        ThrowsMessage<std::invalid_argument>(StrEq("Parameter file \"" + broken +
                                                   "\" is not valid JSON: Missing a name for object member. "
                                                   "(at byte 25)!")));
    const std::string array = json("[1, 2]");
    EXPECT_THAT(
        [&] {
            parse({"-f", array});
        },
        ThrowsMessage<std::invalid_argument>(
            StrEq("Parameter file \"" + array + "\" does not hold a JSON object at its root!")));
}

TEST_F(ParametersTest, DeepNestingAndEndlessFilesAreRefusedBeforeParsing) {
    const std::string deep = json(std::string(1000000, '[') + std::string(1000000, ']'));
    EXPECT_THAT(
        [&] {
            parse({"-f", deep});
        },
        ThrowsMessage<std::invalid_argument>(
            StrEq("Parameter file \"" + deep + "\" is nested more than 1000 levels deep!")));
    const std::string limit = json("{\"vundrel\": {\"a\": " + std::string(998, '[') + std::string(998, ']') + "}}");
    EXPECT_EQ(parse({"-f", limit}).dSpace, 2.0) << "1000 levels are read";
    const std::string quoted = json("{\"vundrel\": {\"algorithm\": \"" + std::string(5000, '[') + "\\\"{\"}}");
    EXPECT_EQ(parse({"-f", quoted}).algorithm, std::string(5000, '[') + "\"{") << "brackets in strings do not nest";
    EXPECT_THAT(
        [] {
            parse({"-f", "/dev/zero"});
        },
        ThrowsMessage<std::invalid_argument>(StrEq("Unable to open parameter file \"/dev/zero\" !")));
    EXPECT_THAT(
        [&] {
            parse({"-f", dir.path.string()});
        },
        ThrowsMessage<std::invalid_argument>(StrEq("Unable to open parameter file \"" + dir.path.string() + "\" !")));
}
