#pragma once

#include <string>

#include "ChipLayout.hpp"

/// The layout a JSON layout file describes: {"detector": {"chip_transformations": [{"chip_id": 0, "matrix":
/// [[a, b, tx], [c, d, ty]]}, ...]}}, the form a facility's layout files already have. Other keys are ignored at
/// every level. The layout is named after the file. Throws `std::invalid_argument` with one line naming the key
/// (and the chip) at fault.
kavot_tpx3spidr::ChipLayout read_chipLayout_file(const std::string& path);

/// The layout the JSON `text` describes, called `name` in messages and attributes.
kavot_tpx3spidr::ChipLayout parse_chipLayout_json(const std::string& text, const std::string& name);
