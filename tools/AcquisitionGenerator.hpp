#pragma once

// Whole detector recordings, written as they are drawn, in time order: photons on the canvas of one chip or a
// quad, each chip's heartbeats (global time) at its own moments, stale heartbeats of an earlier acquisition
// at the start, TDC1 triggers copied into every chip's stream, and a readout lag. Only the packets the readout
// still holds are in memory. With `truth`, the photons lie apart so that any clustering recovers them, and
// the generator reports each one as it drew it: the truth a conversion of the recording is checked against.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "ChipReadout.hpp"
#include "DetectorCanvas.hpp"
#include "PhotonShape.hpp"
#include "Random.hpp"
#include "Tpx3Generator.hpp"
#include "Tpx3Words.hpp"

namespace tpx3gen {

struct AcquisitionSettings {
    /// Hits (drawn, lost ones included), rate, seed, cluster size, noise, readout lag (`disorder_seconds`),
    /// trigger rate, start and chunk size; the pattern, reversal and global-interval fields are not used.
    Settings camera;
    unsigned chips = 1;
    double heartbeat_seconds = 1; ///< 0: no heartbeat at all
    unsigned staleHeartbeats = 0; ///< per chip, from an earlier acquisition, before the first true one
    bool truth = false;           ///< photons apart and no noise; each photon reported to the sink
    bool lagTail = false;         ///< readout lags with a long tail (`ChipReadout::lag_withTail`)
};

/// One photon as drawn, from the hits of it that landed on a pixel. Times in ticks of the heartbeat clock.
struct TruthPhoton {
    std::uint64_t x_raw; ///< ToT-weighted centroid in 1/65536 canvas pixel, rounded down
    std::uint64_t y_raw;
    std::int64_t t_ticks;   ///< the earliest hit
    std::int64_t trigger;   ///< index of the latest trigger at or before t, -1 if none
    std::int64_t tof_ticks; ///< t minus that trigger's time, -1 if none
    unsigned nHits;
    unsigned totSum;
    unsigned totMax;
    unsigned chip; ///< of the earliest hit (the first drawn among equals)
    double cx_px;  ///< the canvas point the photon was drawn around
    double cy_px;
};

struct AcquisitionSummary {
    std::uint64_t hitsWritten = 0;
    std::uint64_t hitsLost = 0; ///< over the gap or beyond the canvas
    std::uint64_t photons = 0;  ///< reported (with `truth`)
    std::uint64_t triggers = 0;
};

/// Draws a recording into a sink with `words(const std::uint64_t*, std::size_t)` (the file, chunk by chunk),
/// `trigger(std::int64_t ticks)` (each trigger time, ascending) and `photon(const TruthPhoton&)` (with `truth`,
/// ascending in t).
class AcquisitionGenerator {
public:
    /// Consecutive photons with `truth` start at least this far apart: 1 us between the last hit of one and
    /// the first of the next (rounding of the start times included), far beyond any clustering's dTime.
    static constexpr double truthSeparation_ticks =
        640 + std::max<double>(PhotonShape::maxDelay_ticks, PhotonShape::maxHits - 1) + 2;
    /// Stale heartbeats say this much after the start (plus the recording's expected length).
    static constexpr double staleAhead_seconds = 61000;

    explicit AcquisitionGenerator(const AcquisitionSettings& settings_)
        : settings(settings_), camera(settings.camera), canvas(settings.chips), random(camera.seed),
          readout(settings.chips,
                  camera.maxChunkPackets,
                  camera.disorder_seconds / tick_seconds,
                  camera.seed ^ 0x5EADC0DEULL),
          start_ticks(static_cast<std::int64_t>(static_cast<std::uint64_t>(camera.startTime_seconds / 25e-9) * 16)) {
        if (!(camera.hitRate_perSecond > 0) || camera.meanClusterSize < 1 || camera.meanClusterSize > 20 ||
            camera.noiseFraction < 0 || camera.noiseFraction > 1 || camera.disorder_seconds < 0 ||
            camera.tdcRate_perSecond < 0 || camera.startTime_seconds < 0 || settings.heartbeat_seconds < 0) {
            throw std::invalid_argument("generator settings out of range");
        }
        if (settings.lagTail) {
            readout.lag_withTail();
        }
        if (settings.truth && camera.noiseFraction > 0) {
            throw std::invalid_argument("truth needs photons alone: no noise hits");
        }
        if (settings.staleHeartbeats > 0 && settings.heartbeat_seconds == 0) {
            throw std::invalid_argument("stale heartbeats need heartbeats");
        }
        if (settings.heartbeat_seconds > 0 && camera.maxChunkPackets < 2) {
            throw std::invalid_argument("heartbeats need chunks of 2 packets or more: both halves go in one chunk");
        }
        if (settings.heartbeat_seconds > 0) {
            heartbeatInterval_ticks = 16 * std::max<std::int64_t>(std::llround(settings.heartbeat_seconds / 25e-9), 1);
            // Each chip's heartbeats come a little after the others', up to 1 ms (a tenth of the interval at most).
            const auto stagger25ns =
                static_cast<std::uint64_t>(std::min(1e-3 / 25e-9, settings.heartbeat_seconds / 250e-9));
            for (unsigned chip = 0; chip < settings.chips; ++chip) {
                nextHeartbeat_ticks.push_back(start_ticks +
                                              16 * static_cast<std::int64_t>(random.below(stagger25ns + 1)));
            }
        }
        if (camera.tdcRate_perSecond > 0) {
            triggerPeriod_ticks = 1 / camera.tdcRate_perSecond / tick_seconds;
            triggerPhase_ticks = random.uniform() * triggerPeriod_ticks;
        }
    }

    AcquisitionGenerator(const AcquisitionGenerator&) = delete; // `camera` refers into its own settings
    AcquisitionGenerator& operator=(const AcquisitionGenerator&) = delete;

    /// Draws the whole recording into `sink`; once.
    template <typename Sink>
    AcquisitionSummary run(Sink& sink) {
        const auto write = [&sink](const std::uint64_t* words, std::size_t count) { sink.words(words, count); };
        queueStaleHeartbeats();
        const double photonHitRate = camera.hitRate_perSecond * (1 - camera.noiseFraction);
        const double photonInterval_ticks =
            PhotonShape::mean_hitCount(camera.meanClusterSize) / photonHitRate / tick_seconds;
        const double noiseInterval_ticks =
            camera.noiseFraction > 0 ? 1 / (camera.hitRate_perSecond * camera.noiseFraction) / tick_seconds : 0;
        const auto photonGap = [&] {
            if (!settings.truth) {
                return random.exponential(photonInterval_ticks);
            }
            return truthSeparation_ticks +
                   random.exponential(std::max(photonInterval_ticks - truthSeparation_ticks, 0.0));
        };
        double nextPhoton = photonHitRate > 0 ? photonGap() : INFINITY;
        double nextNoise = camera.noiseFraction > 0 ? random.exponential(noiseInterval_ticks) : INFINITY;
        while (drawn < camera.hits) {
            if (nextNoise < nextPhoton) {
                const std::int64_t t = start_ticks + static_cast<std::int64_t>(nextNoise);
                advance(t, sink, write);
                const auto gx = static_cast<int>(random.below(static_cast<std::uint64_t>(canvas.side_px())));
                const auto gy = static_cast<int>(random.below(static_cast<std::uint64_t>(canvas.side_px())));
                land(gx, gy, t, static_cast<std::uint16_t>(1 + random.below(30)));
                nextNoise += random.exponential(noiseInterval_ticks);
                continue;
            }
            const std::int64_t t0 = start_ticks + static_cast<std::int64_t>(nextPhoton);
            nextPhoton += photonGap();
            advance(t0, sink, write);
            drawPhoton(t0, sink);
        }
        schedule_upTo(latestHit_ticks, sink);
        readout.finish(write);
        return summary;
    }

private:
    /// A photon's landed hits summed up for its truth row.
    struct Landed {
        std::uint64_t sumW = 0, sumWx = 0, sumWy = 0;
        unsigned n = 0, totSum = 0, totMax = 0, chip = 0;
        std::int64_t earliest_ticks = 0;
    };

    template <typename Sink>
    void drawPhoton(std::int64_t t0, Sink& sink) {
        const std::size_t n = PhotonShape::draw_hitCount(camera.meanClusterSize, random);
        const double side = canvas.side_px();
        const double cx = -0.5 + random.uniform() * side; // pixel k spans [k - 0.5, k + 0.5)
        const double cy = -0.5 + random.uniform() * side;
        const auto px = static_cast<int>(std::floor(cx + 0.5));
        const auto py = static_cast<int>(std::floor(cy + 0.5));
        const double peak = PhotonShape::draw_peak(random);
        Landed landed;
        for (std::size_t h = 0; h < n && drawn < camera.hits; ++h) {
            const auto& offset = PhotonShape::offsets()[h];
            const int gx = px + offset[0];
            const int gy = py + offset[1];
            const auto [tot, delay] =
                PhotonShape::draw_hit((gx - cx) * (gx - cx) + (gy - cy) * (gy - cy), peak, random);
            // With `truth`, the hits come nearest first, a tick apart: each lies within 3 pixels of an earlier one
            // (across the gap too), so a clustering that tests each hit once, in time order, finds the photon
            // whole.
            const std::int64_t t = t0 + (settings.truth ? static_cast<std::int64_t>(h) : delay);
            const auto chip = land(gx, gy, t, tot);
            if (chip < 0) {
                continue;
            }
            const std::uint64_t w = tot + 1u;
            landed.sumW += w;
            landed.sumWx += w * static_cast<std::uint64_t>(gx);
            landed.sumWy += w * static_cast<std::uint64_t>(gy);
            landed.totSum += tot;
            landed.totMax = std::max<unsigned>(landed.totMax, tot);
            if (landed.n++ == 0 || t < landed.earliest_ticks) {
                landed.earliest_ticks = t;
                landed.chip = static_cast<unsigned>(chip);
            }
        }
        if (settings.truth && landed.n > 0) {
            schedule_upTo(landed.earliest_ticks, sink); // the triggers up to the photon are known
            const bool triggered = summary.triggers > 0;
            sink.photon(TruthPhoton{landed.sumWx * 65536 / landed.sumW, landed.sumWy * 65536 / landed.sumW,
                                    landed.earliest_ticks, static_cast<std::int64_t>(summary.triggers) - 1,
                                    triggered ? landed.earliest_ticks - latestTrigger_ticks : -1, landed.n,
                                    landed.totSum, landed.totMax, landed.chip, cx, cy});
            ++summary.photons;
        }
    }

    /// One drawn hit: into its chip's readout, or lost. Returns the chip, -1 when lost.
    int land(int gx, int gy, std::int64_t t, std::uint16_t tot) {
        ++drawn;
        const auto pixel = canvas.chipPixel_at(gx, gy);
        if (!pixel) {
            ++summary.hitsLost;
            return -1;
        }
        latestHit_ticks = std::max(latestHit_ticks, t);
        readout.add_late(pixel->chip, t,
                         pixelWord(pixel->x, pixel->y, static_cast<std::uint64_t>(t) & raw34_mask, tot));
        ++summary.hitsWritten;
        return static_cast<int>(pixel->chip);
    }

    /// Heartbeats and triggers up to `now`, then the readout of what is due: every hit drawn from here on is
    /// at `now` or later.
    template <typename Sink, typename Write>
    void advance(std::int64_t now, Sink& sink, Write& write) {
        schedule_upTo(now, sink);
        readout.release_upTo(now, write);
    }

    template <typename Sink>
    void schedule_upTo(std::int64_t now, Sink& sink) {
        for (unsigned chip = 0; chip < nextHeartbeat_ticks.size(); ++chip) {
            for (std::int64_t& next = nextHeartbeat_ticks[chip]; next <= now; next += heartbeatInterval_ticks) {
                queueHeartbeat(chip, next, next);
            }
        }
        while (triggerPeriod_ticks > 0) {
            const std::int64_t t =
                start_ticks +
                std::llround(triggerPhase_ticks + static_cast<double>(summary.triggers) * triggerPeriod_ticks);
            if (t > now) {
                break;
            }
            sink.trigger(t);
            // Every chip carries a copy of the same TDC packet, each read out on its own.
            for (unsigned chip = 0; chip < canvas.chipCount(); ++chip) {
                readout.add_late(chip, t, tdcWord(summary.triggers, static_cast<std::uint64_t>(t) & raw36_mask));
            }
            latestTrigger_ticks = t;
            ++summary.triggers;
        }
    }

    void queueHeartbeat(unsigned chip, std::int64_t readout_ticks, std::int64_t value_ticks) {
        const auto global25ns = static_cast<std::uint64_t>(value_ticks) / 16;
        readout.add_pair(chip, readout_ticks, globalLowWord(global25ns), globalHighWord(global25ns));
    }

    /// An earlier acquisition's heartbeats, read out first: far later than anything of this one, and each later
    /// than the chip's next one, which is how a reset of the clock shows in a chip's heartbeats (an earlier
    /// heartbeat not later than its successor would be read as a valid one).
    void queueStaleHeartbeats() {
        const double expected_seconds = static_cast<double>(camera.hits) / camera.hitRate_perSecond;
        const auto ahead_ticks = 16 * static_cast<std::int64_t>((staleAhead_seconds + expected_seconds) / 25e-9);
        for (unsigned chip = 0; chip < nextHeartbeat_ticks.size(); ++chip) {
            for (unsigned k = 0; k < settings.staleHeartbeats; ++k) {
                queueHeartbeat(chip, ChipReadout::first_ticks,
                               nextHeartbeat_ticks[chip] + ahead_ticks +
                                   static_cast<std::int64_t>(settings.staleHeartbeats - 1 - k) *
                                       heartbeatInterval_ticks);
            }
        }
    }

    static constexpr std::uint64_t raw34_mask = (std::uint64_t{1} << 34) - 1;
    static constexpr std::uint64_t raw36_mask = (std::uint64_t{1} << 36) - 1;

    AcquisitionSettings settings;
    const Settings& camera;
    DetectorCanvas canvas;
    Random random;
    ChipReadout readout;
    std::int64_t start_ticks;
    std::int64_t heartbeatInterval_ticks = 0;
    std::vector<std::int64_t> nextHeartbeat_ticks; ///< empty without heartbeats
    double triggerPeriod_ticks = 0;                ///< 0: no triggers
    double triggerPhase_ticks = 0;
    std::int64_t latestTrigger_ticks = 0;
    std::int64_t latestHit_ticks = 0;
    std::uint64_t drawn = 0;
    AcquisitionSummary summary;
};

} // namespace tpx3gen
