// The settings of a run from the command line and from parameter files.

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Parameters.hpp"
#include "TestSupport.hpp"

using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

/// The log threshold the last parse set (4 unless --verbose was given).
std::int32_t threshold = 4;

/// Builds Parameters from a command line after the program name, split at blanks.
Parameters parse(const std::string& line) {
    std::vector<std::string> args{"vundrel"};
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        args.push_back(word);
    }
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    threshold = 4;
    return Parameters(static_cast<int>(args.size()), argv.data(), threshold);
}

class ParametersTest : public ::testing::Test {
protected:
    /// A parameter file holding `text`.
    std::string json(const std::string& text) {
        std::string name = std::to_string(++files);
        name += ".json";
        const std::string path = dir / name;
        testsupport::writeFile(path, text);
        return path;
    }
    testsupport::TempDir dir;
    int files = 0;
};

} // namespace

TEST_F(ParametersTest, DefaultsThenOptionsInCommandLineOrder) {
    const Parameters defaults = parse("");
    EXPECT_FALSE(defaults.exitEarly || defaults.inputFile || defaults.outputFile || defaults.photImgPath);
    EXPECT_EQ(defaults.dSpace, 2.0);
    EXPECT_EQ(defaults.dTime, 1e-7);
    EXPECT_EQ(defaults.nPxMin, 2u);
    EXPECT_EQ(defaults.nPxMax, 200u);
    EXPECT_EQ(defaults.weightMin, 1.0);
    EXPECT_EQ(defaults.weightMax, 5000.0);
    EXPECT_FALSE(defaults.TDC1);
    EXPECT_EQ(defaults.algorithm, "default");
    EXPECT_TRUE(defaults.useGlobalTime);

    const Parameters p = parse("-i a.tpx3 -i b.tpx3 --outputFile=o.kavotphot --dS 3px -t 1e-6 -k 2.5 -K -1 -m 10 "
                               "-M 20 -T --photImgPath= --algorithm checkNextOnly --globalTime_ignore --verbose -7 "
                               "--verb=3");
    EXPECT_FALSE(p.exitEarly);
    EXPECT_EQ(p.inputFile, "b.tpx3");
    EXPECT_EQ(p.outputFile, "o.kavotphot");
    EXPECT_EQ(p.dSpace, 3.0);
    EXPECT_EQ(p.dTime, 1e-6);
    EXPECT_EQ(p.nPxMin, 2u);                                        // stoul stops at the first non-digit
    EXPECT_EQ(p.nPxMax, std::numeric_limits<std::uint64_t>::max()); // and wraps negative input
    EXPECT_EQ(p.weightMin, 10.0);
    EXPECT_EQ(p.weightMax, 20.0);
    EXPECT_TRUE(p.TDC1);
    EXPECT_EQ(p.photImgPath, "");
    EXPECT_EQ(p.algorithm, "checkNextOnly");
    EXPECT_FALSE(p.useGlobalTime);
    EXPECT_EQ(threshold, 3);
    // The threshold is set where its option stands, so that a later failure is logged under it.
    EXPECT_THROW(parse("--verbose -2 -k x"), std::invalid_argument);
    EXPECT_EQ(threshold, -2);
}

TEST_F(ParametersTest, ConversionFailuresCarryTheConversionName) {
    EXPECT_THAT([] { parse("-s abc"); }, ThrowsMessage<std::invalid_argument>(StrEq("stod")));
    EXPECT_THAT([] { parse("-m 1e-400"); }, ThrowsMessage<std::out_of_range>(StrEq("stod")));
    EXPECT_THAT([] { parse("-K 99999999999999999999"); }, ThrowsMessage<std::out_of_range>(StrEq("stoul")));
    EXPECT_THAT([] { parse("--verbose 4294967296"); }, ThrowsMessage<std::out_of_range>(StrEq("stoi")));
    EXPECT_THAT([] { parse("first -T second"); },
                ThrowsMessage<std::invalid_argument>(StrEq("excess argument: first !")));
}

TEST_F(ParametersTest, ParameterFileIsReadWhereItsOptionStands) {
    const std::string file = json(R"({"vundrel": {"dSpace": 2.5, "dTime": 5e-7, "nPxMin": 3, "nPxMax": 100,
                                      "TDC1": true, "algorithm": "checkNextOnly"}, "other": 1})");
    const Parameters all = parse("-f " + file);
    EXPECT_EQ(all.dSpace, 2.5);
    EXPECT_EQ(all.dTime, 5e-7);
    EXPECT_EQ(all.nPxMin, 3u);
    EXPECT_EQ(all.nPxMax, 100u);
    EXPECT_TRUE(all.TDC1);
    EXPECT_EQ(all.algorithm, "checkNextOnly");

    const std::string noDSpace = json(R"({"vundrel": {"dspace": 7, "TDC1": false}})");
    struct Case {
        std::string line;
        double dSpace;
    };
    for (const Case& c :
         {Case{"-s 9 -f " + file, 2.5}, Case{"-f " + file + " -s 9", 9.0}, Case{"-s 9 --paramsFile " + noDSpace, 9.0},
          Case{"-f " + noDSpace + " -s 9", 9.0}, Case{"-f " + json(R"({"vundrel": {"dSpace": 3}})"), 3.0},
          Case{"-f " + json(R"({"vundrel": {}})"), 2.0}}) {
        EXPECT_EQ(parse(c.line).dSpace, c.dSpace) << c.line;
    }
    EXPECT_FALSE(parse("-T -f " + noDSpace).TDC1) << "the file can clear what the command line set";
    EXPECT_EQ(parse("-f " + file + " -f " + json(R"({"vundrel": {"nPxMin": 8}})")).nPxMin, 8u);
    EXPECT_EQ(parse("-f " + json(R"({"vundrel": {"nPxMin": 18446744073709551615}})")).nPxMin,
              std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(parse("-f " + json(R"({"vundrel": {"algorithm": ""}})")).algorithm, "");
    // The first of two equal names counts, at both levels.
    EXPECT_EQ(parse("-f " + json(R"({"vundrel": {"nPxMin": 4, "nPxMin": 5}, "vundrel": 1})")).nPxMin, 4u);
}

TEST_F(ParametersTest, ParameterFileErrorsNameTheKeyOrTheFile) {
    struct Case {
        std::string text; ///< the file's content, or "@path" for a path to name instead
        std::string message;
    };
    const std::string deep = std::string(1000000, '[') + std::string(1000000, ']');
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
        {R"({"vundrel": {"dSpace": 2,}})", "is not valid JSON: Missing a name for object member. (at byte 25)!"},
        {"[1, 2]", "does not hold a JSON object at its root!"},
        // The parser descends recursively: deep nesting is refused before it runs.
        {deep, "is nested more than 1000 levels deep!"},
        {"@/dev/zero", "Unable to open parameter file \"/dev/zero\" !"},
        {"@" + (dir / "missing.json"), "Unable to open parameter file \"" + (dir / "missing.json") + "\" !"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        const std::string path = c.text.starts_with('@') ? c.text.substr(1) : json(c.text);
        // Messages about the file as a whole start with its name.
        const std::string message = c.message.starts_with("is ") || c.message.starts_with("does ")
                                        ? "Parameter file \"" + path + "\" " + c.message
                                        : c.message;
        EXPECT_THAT([&] { parse("-f " + path); }, ThrowsMessage<std::invalid_argument>(StrEq(message)));
    }
    const std::string limit = json("{\"vundrel\": {\"a\": " + std::string(998, '[') + std::string(998, ']') + "}}");
    EXPECT_EQ(parse("-f " + limit).dSpace, 2.0) << "1000 levels are read";
    const std::string quoted = json("{\"vundrel\": {\"algorithm\": \"" + std::string(5000, '[') + "\\\"{\"}}");
    EXPECT_EQ(parse("-f " + quoted).algorithm, std::string(5000, '[') + "\"{") << "brackets in strings do not nest";
}
