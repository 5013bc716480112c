#pragma once

namespace kavot {

/// One reconstructed photon: sub-pixel position and the arrival time of its cluster's first hit.
template <typename LengthType, typename TimeType>
struct PhotonEvent {
    constexpr PhotonEvent(LengthType x_, LengthType y_, TimeType toa_) noexcept : x(x_), y(y_), toa(toa_) {}

    LengthType x;
    LengthType y;
    TimeType toa;

    friend bool operator==(const PhotonEvent&, const PhotonEvent&) = default;
};

} // namespace kavot
