// The settings of a run from the command line and from parameter files.

#include "Parameters.hpp"
#include "TestSupport.hpp"

namespace {

/// The log threshold the last parse set (4 unless --verbose was given).
std::int32_t threshold = 4;

/// Builds Parameters from a command line after the program name, split at blanks.
Parameters parse(const std::string& line) {
    std::vector<std::string> args;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        args.push_back(word);
    }
    threshold = 4;
    return testsupport::parseCommandLine<Parameters>(args, threshold);
}

/// The clustering settings of a run, in one line.
std::string settingsOf(const Parameters& p) {
    std::ostringstream text;
    text << "s=" << p.dSpace << " t=" << p.dTime << " k=" << p.nPxMin << " K=" << p.nPxMax << " m=" << p.weightMin
         << " M=" << p.weightMax << " T=" << p.TDC1 << " " << p.algorithm << " global=" << p.useGlobalTime;
    return text.str();
}

/// A parameter file holding `text`.
std::string json(const std::string& text) {
    static const testsupport::TempDir dir;
    static int files = 0;
    const std::string path = dir / (std::to_string(++files) + ".json");
    testsupport::writeFile(path, text);
    return path;
}

} // namespace

TEST(Parameters, OptionsAndParameterFilesInCommandLineOrder) {
    const Parameters p = parse("-i a.tpx3 -i b.tpx3 --outputFile=o.kavotphot --photImgPath= --verbose -7 --verb=3");
    EXPECT_FALSE(p.exitEarly);
    EXPECT_EQ(p.inputFile, "b.tpx3");
    EXPECT_EQ(p.outputFile, "o.kavotphot");
    EXPECT_EQ(p.photImgPath, "");
    EXPECT_EQ(threshold, 3);
    // The threshold is set where its option stands, so that a later failure is logged under it.
    EXPECT_THROW(parse("--verbose -2 -k x"), std::invalid_argument);
    EXPECT_EQ(threshold, -2);

    const std::string file = json(R"({"vundrel": {"dSpace": 2.5, "dTime": 5e-7, "nPxMin": 3, "nPxMax": 100,
                                      "TDC1": true, "algorithm": "checkNextOnly"}, "other": 1})");
    const std::string fromFile = "s=2.5 t=5e-07 k=3 K=100 m=1 M=5000 T=1 checkNextOnly global=1";
    const std::string noDSpace = json(R"({"vundrel": {"dspace": 7, "TDC1": false}})");
    const std::pair<std::string, std::string> cases[] = {
        // stoul stops at the first non-digit and wraps negative input.
        {"--dS 3px -t 1e-6 -k 2.5 -K -1 -m 10 -M 20 -T --algorithm checkNextOnly --globalTime_ignore",
         "s=3 t=1e-06 k=2 K=18446744073709551615 m=10 M=20 T=1 checkNextOnly global=0"},
        {"-f " + json(R"({"vundrel": {}})"), "s=2 t=1e-07 k=2 K=200 m=1 M=5000 T=0 default global=1"},
        {"-f " + file, fromFile},
        {"-s 9 -f " + file, fromFile},
        {"-f " + file + " -s 9", "s=9 t=5e-07 k=3 K=100 m=1 M=5000 T=1 checkNextOnly global=1"},
        // The file can clear what the command line set.
        {"-s 9 -T --paramsFile " + noDSpace, "s=9 t=1e-07 k=2 K=200 m=1 M=5000 T=0 default global=1"},
        {"-f " + file + " -f " + json(R"({"vundrel": {"nPxMin": 8}})"),
         "s=2.5 t=5e-07 k=8 K=100 m=1 M=5000 T=1 checkNextOnly global=1"},
        {"-f " + json(R"({"vundrel": {"nPxMin": 18446744073709551615}})"),
         "s=2 t=1e-07 k=18446744073709551615 K=200 m=1 M=5000 T=0 default global=1"},
        // The first of two equal names counts, at both levels.
        {"-f " + json(R"({"vundrel": {"nPxMin": 4, "nPxMin": 5}, "vundrel": 1})"),
         "s=2 t=1e-07 k=4 K=200 m=1 M=5000 T=0 default global=1"},
    };
    for (const auto& [line, expected] : cases) {
        EXPECT_EQ(settingsOf(parse(line)), expected) << line;
    }
    // Failed conversions carry the conversion's name.
    EXPECT_THROW_MESSAGE(parse("-s abc"), std::invalid_argument, "stod");
    EXPECT_THROW_MESSAGE(parse("-m 1e-400"), std::out_of_range, "stod");
    EXPECT_THROW_MESSAGE(parse("-K 99999999999999999999"), std::out_of_range, "stoul");
    EXPECT_THROW_MESSAGE(parse("--verbose 4294967296"), std::out_of_range, "stoi");
    EXPECT_THROW_MESSAGE(parse("first -T second"), std::invalid_argument, "excess argument: first !");
}

TEST(Parameters, ParameterFileErrorsNameTheKeyOrTheFile) {
    const std::string missing = json("") + ".missing";
    const std::pair<std::string, std::string> cases[] = {
        // The file's content, or "@path" for a path to name instead; the message.
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
        {std::string(1000000, '[') + std::string(1000000, ']'), "is nested more than 1000 levels deep!"},
        {"@/dev/zero", "Unable to open parameter file \"/dev/zero\" !"},
        {"@" + missing, "Unable to open parameter file \"" + missing + "\" !"},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(expected);
        const std::string path = text.starts_with('@') ? text.substr(1) : json(text);
        // Messages about the file as a whole start with its name.
        const bool whole = expected.starts_with("is ") || expected.starts_with("does ");
        EXPECT_THROW_MESSAGE(parse("-f " + path), std::invalid_argument,
                             whole ? "Parameter file \"" + path + "\" " + expected : expected);
    }
    const std::string limit = json("{\"vundrel\": {\"a\": " + std::string(998, '[') + std::string(998, ']') + "}}");
    EXPECT_EQ(parse("-f " + limit).dSpace, 2.0) << "1000 levels are read";
    const std::string quoted = json("{\"vundrel\": {\"algorithm\": \"" + std::string(5000, '[') + "\\\"{\"}}");
    EXPECT_EQ(parse("-f " + quoted).algorithm, std::string(5000, '[') + "\"{") << "brackets in strings do not nest";
}
