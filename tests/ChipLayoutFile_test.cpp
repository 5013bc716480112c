// Chip layouts: the checks of the layout itself, and the JSON layout files that describe one.

#include <functional>

#include "ChipLayoutFile.hpp"
#include "TestSupport.hpp"

using kavot_tpx3spidr::ChipLayout;
using kavot_tpx3spidr::ChipTransform;

namespace {

/// A layout file listing `entries` (the inside of "chip_transformations").
std::string layoutJson(const std::string& entries) {
    return R"({"detector": {"chip_transformations": [)" + entries + "]}}";
}

std::string entry(const std::string& chip, const std::string& matrix) {
    return R"({"chip_id": )" + chip + R"(, "matrix": )" + matrix + "}";
}

/// An entry of chip 0 whose first row is [a, b, tx] (and second row [0, 1, 0]).
std::string row0(const std::string& row) {
    return layoutJson(entry("0", "[[" + row + "], [0, 1, 0]]"));
}

const std::string quadEntries = entry("0", "[[1,0,258],[0,1,0]]") + "," + entry("1", "[[-1,0,513],[0,-1,513]]") + "," +
                                entry("2", "[[-1,0,255],[0,-1,513]]") + "," + entry("3", "[[1,0,0],[0,1,0]]");

/// The canvas (and, with `chips`, each chip and its transform) that `read` gives, or the message it throws.
std::string outcome(const std::function<ChipLayout()>& read, bool chips = true) {
    try {
        const ChipLayout layout = read();
        std::string text = std::to_string(layout.width_px()) + "x" + std::to_string(layout.height_px());
        for (const auto& [chip, t] : chips ? layout.listed() : std::vector<std::pair<int, ChipTransform>>{}) {
            for (const int v : {chip, t.a, t.b, t.tx, t.c, t.d, t.ty}) {
                text += " " + std::to_string(v);
            }
        }
        return text;
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

} // namespace

TEST(ChipLayout, ChecksEveryPlaceAtItsBoundaries) {
    const auto at = [](int tx, int ty) { return ChipTransform{1, 0, tx, 0, 1, ty}; };
    const std::pair<std::vector<std::pair<int, ChipTransform>>, std::string> cases[] = {
        // Squares that touch share no pixel (listed both ways round, so that each side is once the only one
        // that touches); one pixel more and they overlap.
        {{{0, at(0, 0)}, {1, at(256, 0)}, {2, at(0, 256)}, {3, at(256, 256)}}, "512x512"},
        {{{0, at(256, 256)}, {1, at(0, 256)}, {2, at(256, 0)}, {3, at(0, 0)}}, "512x512"},
        {{{0, at(0, 0)}, {1, at(255, 255)}}, "chip 1 overlaps chip 0!"},
        {{{0, at(255, 255)}, {1, at(0, 0)}}, "chip 1 overlaps chip 0!"},
        // A mirror reaches back 255 pixels from its offset.
        {{{0, {-1, 0, 255, 0, -1, 255}}}, "256x256"},
        {{{0, {-1, 0, 254, 0, 1, 0}}}, "chip 0 is placed at negative canvas coordinates (-1, 0)!"},
        {{{0, at(0, -1)}}, "chip 0 is placed at negative canvas coordinates (0, -1)!"},
        {{{0, at(3840, 3840)}}, "4096x4096"},
        {{{0, at(3841, 0)}}, "chip 0 lies beyond a canvas of 4096 x 4096 pixels!"},
        {{{0, at(0, 3841)}}, "chip 0 lies beyond a canvas of 4096 x 4096 pixels!"},
        {{{0, {1, 1, 0, 0, 1, 0}}},
         "chip 0: the matrix [[a, b], [c, d]] is no rotation or mirror (each row and column one entry of 1 or -1, "
         "the others 0)!"},
        {{{0, at(0, 0)}, {0, at(256, 0)}}, "chip 0 is placed twice!"},
    };
    for (const auto& [chips, expected] : cases) {
        SCOPED_TRACE(expected);
        EXPECT_EQ(outcome([&] { return ChipLayout::make_from_transforms("t", chips); }, false), expected);
    }
}

TEST(ChipLayoutFile, QuadFileGivesTheQuadLayoutAndUnknownKeysAreIgnored) {
    const testsupport::TempDir dir;
    const std::string path = dir / "quad.json";
    testsupport::writeFile(path, layoutJson(quadEntries) + "\n");
    EXPECT_EQ(read_chipLayout_file(path).get_name(), path);
    EXPECT_EQ(outcome([&] { return read_chipLayout_file(path); }), outcome([] { return ChipLayout::quad(); }));
    const std::pair<std::string, std::string> cases[] = {
        // Transposed, then rotated a quarter turn beside it.
        {layoutJson(entry("0", "[[0,1,0],[1,0,256]]") + "," + entry("7", "[[0,-1,511],[1,0,0]]")),
         "512x512 0 0 1 0 1 0 256 7 0 -1 511 1 0 0"},
        {R"({"v": [1, {"detector": 2}], "detector": {"name": "x", "chip_transformations": [{"chip_id": 255, "id": 3,
            "matrix": [[1, 0, 0], [0, 1, 0]], "chip_id": "first one counts"}], "detector": 5}, "detector": 7})",
         "256x256 255 1 0 0 0 1 0"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(outcome([&] { return parse_chipLayout_json(text, "t"); }), expected) << text;
    }
}

TEST(ChipLayoutFile, EveryMalformedInputIsOneLineNamingTheKey) {
    const std::string ok = "[[1,0,0],[0,1,0]]";
    const std::string shape = R"(Key "matrix" of chip 3 expected to be 2 rows of 3 integers!)";
    const std::pair<std::string, std::string> cases[] = {
        {R"({"detector": {}} x)",
         R"(Layout "t" is not valid JSON: The document root must not be followed by other values. (at byte 17)!)"},
        {"[]", R"(Layout "t" does not hold a JSON object at its root!)"},
        {R"({"Detector": {}})", R"(Key "detector" missing!)"},
        {R"({"detector": []})", R"(Key "detector" expected to be a JSON object!)"},
        {R"({"detector": {"chip_transformations": {}}})", R"(Key "chip_transformations" expected to be a JSON array!)"},
        {layoutJson(""), R"(Key "chip_transformations" lists no chip!)"},
        {layoutJson(entry("0", ok) + ", [0]"), R"("chip_transformations"[1] expected to be a JSON object!)"},
        {layoutJson(R"({"matrix": [[1,0,0],[0,1,0]]})"), R"(Key "chip_id" missing in "chip_transformations"[0]!)"},
        {layoutJson(entry("\"0\"", ok)), R"(Key "chip_id" in "chip_transformations"[0] expected to be an integer!)"},
        {layoutJson(entry("-1", ok)), R"(Key "chip_id" in "chip_transformations"[0] expected to be from 0 to 255!)"},
        {layoutJson(entry("256", ok)), R"(Key "chip_id" in "chip_transformations"[0] expected to be from 0 to 255!)"},
        {layoutJson(R"({"chip_id": 3})"), R"(Key "matrix" missing for chip 3!)"},
        {layoutJson(entry("3", "[[1,0,0]]")), shape},
        {layoutJson(entry("3", "[[1,0,0],[0,1,0],[0,0,1]]")), shape},
        {layoutJson(entry("3", "[[1,0,0],[0,1,0,0]]")), shape},
        {row0("1.0, 0, 0"), R"("matrix"[0][0] of chip 0 expected to be an integer!)"},
        {row0("2, 0, 0"), R"("matrix"[0][0] of chip 0 expected to be -1, 0 or 1!)"},
        {row0("1, -2, 0"), R"("matrix"[0][1] of chip 0 expected to be -1, 0 or 1!)"},
        {row0("1, 0, 16385"), R"("matrix"[0][2] of chip 0 expected to be from -16384 to 16384!)"},
        {row0("1, 0, -16385"), R"("matrix"[0][2] of chip 0 expected to be from -16384 to 16384!)"},
        // Too long for 64 bits, it arrives as a double: out of range, not a fraction.
        {row0("1, 0, 18446744073709551616"), R"("matrix"[0][2] of chip 0 expected to be from -16384 to 16384!)"},
        {layoutJson(entry("0", "[[1,0,0],[0,1,-4294967296]]")),
         R"("matrix"[1][2] of chip 0 expected to be from -16384 to 16384!)"},
        // Offsets the reader lets through are the layout's to refuse.
        {row0("1, 0, 16384"), "chip 0 lies beyond a canvas of 4096 x 4096 pixels!"},
        {row0("1, 0, -16384"), "chip 0 is placed at negative canvas coordinates (-16384, 0)!"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(outcome([&] { return parse_chipLayout_json(text, "t"); }), expected) << text;
    }
    const testsupport::TempDir dir;
    EXPECT_EQ(outcome([&] { return read_chipLayout_file(dir.path.string()); }),
              "Unable to open file \"" + dir.path.string() + "\" !");
}

TEST(ChipLayoutFile, MillionLevelsOfNestingAreRefusedOrIgnoredWithoutRecursion) {
    // Parsed, walked or destroyed by recursion, these overflow the stack.
    const std::string open(1'000'000, '['), deep = open + std::string(1'000'000, ']');
    EXPECT_EQ(outcome([&] { return parse_chipLayout_json(open, "t"); }),
              R"(Layout "t" is not valid JSON: Invalid value. (at byte 1000000)!)");
    const std::string text =
        R"({"x": )" + deep + R"(, "detector": {"y": )" + deep + R"(, "chip_transformations": [)" + quadEntries + "]}}";
    EXPECT_EQ(outcome([&] { return parse_chipLayout_json(text, "t"); }), outcome([] { return ChipLayout::quad(); }));
}
