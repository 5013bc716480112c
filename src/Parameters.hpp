#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include <getopt.h>

/// Every setting of one run: defaults, then the command-line options in the order they stand, with a
/// parameter file read where its option stands.
class Parameters {
public:
    /// `--verbose` sets `logThreshold` (the program passes the log's `logLevel`) at the moment the option is
    /// met, so that it already holds when a later option fails.
    Parameters(int argc, char** argv, std::int32_t& logThreshold);

    void print_help(const char* programName) const;
    void print_license() const;

    /// Reads the "vundrel" object of a JSON parameter file into the fields it names.
    void read_parameterSettings_file(const std::string& path);

    /// The member `key` of `object` as a `T`, after checking that it exists and has the matching JSON type.
    template <typename T, typename JsonValue>
    static T json_getValue_helper(JsonValue& object, const std::string& key) {
        const auto member = object.FindMember(key.c_str());
        if (member == object.MemberEnd()) {
            throw std::invalid_argument("Key \"" + key + "\" missing!");
        }
        const auto& value = member->value;
        if constexpr (std::is_same_v<T, unsigned long>) {
            if (!value.IsUint64()) {
                throw std::invalid_argument("Key \"" + key + "\" expected to be a 64 bit unsigned int!");
            }
            return value.GetUint64();
        } else if constexpr (std::is_same_v<T, double>) {
            if (!value.IsNumber()) {
                throw std::invalid_argument("Key \"" + key + "\" expected to be a double!");
            }
            return value.GetDouble();
        } else if constexpr (std::is_same_v<T, bool>) {
            if (!value.IsBool()) {
                throw std::invalid_argument("Key \"" + key + "\" expected to be a boolean!");
            }
            return value.GetBool();
        } else {
            static_assert(std::is_same_v<T, std::string>);
            if (!value.IsString()) {
                throw std::invalid_argument("Key \"" + key + "\" expected to be a string!");
            }
            return std::string(value.GetString(), value.GetStringLength());
        }
    }

    static const option long_options[];

    bool exitEarly = false;
    std::optional<std::string> inputFile;
    std::optional<std::string> outputFile;
    std::optional<std::string> photImgPath;
    double dSpace = 2.0;
    double dTime = 1e-7;
    std::uint64_t nPxMin = 2;
    std::uint64_t nPxMax = 200;
    double weightMin = 1.0;
    double weightMax = 5000.0;
    bool TDC1 = false;
    std::string algorithm = "default";
    bool useGlobalTime = true;
};
