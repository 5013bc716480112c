#include "Logging.hpp"

std::int32_t logLevel = 4;
