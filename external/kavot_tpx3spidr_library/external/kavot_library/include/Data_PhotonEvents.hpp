#pragma once

#include <optional>
#include <utility>
#include <vector>

namespace kavot {

/// A run's photon events and, when the run used external triggers, their times. An absent trigger list and a
/// present but empty one are different: only a present list is written to a file.
template <typename PhotonEventType>
struct Data_PhotonEvents {
    using photonEvent_type = PhotonEventType;
    using time_type = decltype(std::declval<PhotonEventType>().toa);

    /// Takes over both lists; the caller's vectors are left empty (a present optional stays present).
    Data_PhotonEvents(std::vector<PhotonEventType>&& photonEvents_,
                      std::optional<std::vector<time_type>>&& extTriggers_)
        : photonEvents(std::move(photonEvents_)) {
        photonEvents_.clear();
        if (extTriggers_) {
            extTriggers.emplace(std::move(*extTriggers_));
            extTriggers_->clear();
        }
    }

    std::vector<PhotonEventType> photonEvents;
    std::optional<std::vector<time_type>> extTriggers;
};

} // namespace kavot
