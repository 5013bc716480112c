#include "ChipLayoutFile.hpp"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

using kavot_tpx3spidr::ChipLayout;
using kavot_tpx3spidr::ChipTransform;

namespace {

// A file may nest arrays and objects a million levels deep, even under keys nobody reads. The iterative parser
// keeps its levels on the heap, and the pool allocator releases the whole document at once instead of destroying
// value by value (which would descend as deep as the nesting).
constexpr unsigned parseFlags = rapidjson::kParseIterativeFlag;
using Document = rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<>>;
static_assert(!Document::AllocatorType::kNeedFree, "destroying a deep document must not recurse");
using Value = Document::ValueType;

// Offsets beyond these place a chip far outside any canvas; the layout's own check says so by chip, and numbers
// kept this small cannot overflow its arithmetic.
constexpr int maxOffset_px = 4 * ChipLayout::maxCanvas_px;

/// `value` as an int from `lo` to `hi`, or one line saying what `what` was expected to be. The range is checked
/// on the value first: a literal too long for 64 bits (18446744073709551616) arrives as a double and is out of
/// range, not a decimal number. Within range, only integers written as such pass (1.0 and 1e0 do not).
int integerIn(const Value& value, int lo, int hi, const std::string& what) {
    if (!value.IsNumber()) {
        throw std::invalid_argument(what + " expected to be an integer!");
    }
    // Every integer type converts; near the bounds the conversion is exact.
    const double number = value.GetDouble();
    if (!(number >= lo && number <= hi)) {
        const std::string range = lo == -1 && hi == 1 ? std::string("-1, 0 or 1")
                                                      : "from " + std::to_string(lo) + " to " + std::to_string(hi);
        throw std::invalid_argument(what + " expected to be " + range + "!");
    }
    if (!value.IsInt()) {
        throw std::invalid_argument(what + " expected to be an integer!");
    }
    return value.GetInt();
}

/// The member `key` of `object`, which must be there.
const Value& member(const Value& object, const char* key, const std::string& where) {
    const auto found = object.FindMember(key);
    if (found == object.MemberEnd()) {
        throw std::invalid_argument("Key \"" + std::string(key) + "\" missing" + where + "!");
    }
    return found->value;
}

/// [[a, b, tx], [c, d, ty]] of one chip.
ChipTransform transformOf(const Value& matrix, int chip) {
    const std::string ofChip = " of chip " + std::to_string(chip);
    const auto rowOk = [](const Value& row) { return row.IsArray() && row.Size() == 3; };
    if (!matrix.IsArray() || matrix.Size() != 2 || !rowOk(matrix[0]) || !rowOk(matrix[1])) {
        throw std::invalid_argument("Key \"matrix\"" + ofChip + " expected to be 2 rows of 3 integers!");
    }
    int entries[2][3];
    for (rapidjson::SizeType row = 0; row < 2; ++row) {
        for (rapidjson::SizeType column = 0; column < 3; ++column) {
            const std::string what = "\"matrix\"[" + std::to_string(row) + "][" + std::to_string(column) + "]" + ofChip;
            const int limit = column == 2 ? maxOffset_px : 1;
            entries[row][column] = integerIn(matrix[row][column], -limit, limit, what);
        }
    }
    return {entries[0][0], entries[0][1], entries[0][2], entries[1][0], entries[1][1], entries[1][2]};
}

} // namespace

ChipLayout parse_chipLayout_json(const std::string& text, const std::string& name) {
    Document document;
    document.Parse<parseFlags>(text.c_str(), text.size());
    if (document.HasParseError()) {
        throw std::invalid_argument("Layout \"" + name +
                                    "\" is not valid JSON: " + rapidjson::GetParseError_En(document.GetParseError()) +
                                    " (at byte " + std::to_string(document.GetErrorOffset()) + ")!");
    }
    if (!document.IsObject()) {
        throw std::invalid_argument("Layout \"" + name + "\" does not hold a JSON object at its root!");
    }
    const Value& detector = member(document, "detector", "");
    if (!detector.IsObject()) {
        throw std::invalid_argument("Key \"detector\" expected to be a JSON object!");
    }
    const Value& list = member(detector, "chip_transformations", "");
    if (!list.IsArray()) {
        throw std::invalid_argument("Key \"chip_transformations\" expected to be a JSON array!");
    }
    if (list.Empty()) {
        throw std::invalid_argument("Key \"chip_transformations\" lists no chip!");
    }
    std::vector<std::pair<int, ChipTransform>> chips;
    for (rapidjson::SizeType k = 0; k < list.Size(); ++k) {
        const std::string entry = "\"chip_transformations\"[" + std::to_string(k) + "]";
        if (!list[k].IsObject()) {
            throw std::invalid_argument(entry + " expected to be a JSON object!");
        }
        const int chip = integerIn(member(list[k], "chip_id", " in " + entry), 0, 255, "Key \"chip_id\" in " + entry);
        const Value& matrix = member(list[k], "matrix", " for chip " + std::to_string(chip));
        chips.emplace_back(chip, transformOf(matrix, chip));
    }
    // Rotations, repeated chips, overlaps and the canvas are the layout's own checks, named by chip.
    return ChipLayout::make_from_transforms(name, chips);
}

ChipLayout read_chipLayout_file(const std::string& path) {
    // A layout file is a small regular file; a device or a pipe that never ends would be read until memory runs
    // out, and a folder opens but cannot be read.
    constexpr std::uintmax_t maxSize_bytes = std::uintmax_t{64} << 20;
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        throw std::invalid_argument("Unable to open file \"" + path + "\" !");
    }
    const std::uintmax_t size_bytes = std::filesystem::file_size(path, error);
    if (error) {
        throw std::invalid_argument("Unable to open file \"" + path + "\" !");
    }
    if (size_bytes > maxSize_bytes) {
        throw std::invalid_argument("Layout file \"" + path + "\" is larger than 64 MiB!");
    }
    std::ifstream stream(path, std::ios::in | std::ios::binary);
    if (!stream.is_open()) {
        throw std::invalid_argument("Unable to open file \"" + path + "\" !");
    }
    std::string text(static_cast<std::size_t>(size_bytes), '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (stream.bad()) {
        throw std::invalid_argument("Unable to read file \"" + path + "\" !");
    }
    text.resize(static_cast<std::size_t>(stream.gcount())); // the file may have shrunk since its size was taken
    return parse_chipLayout_json(text, path);
}
