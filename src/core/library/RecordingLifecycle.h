#pragma once

#include <string>

namespace pavix {

// The way of one recording from the user's approval to its upload, for both the user's own
// recordings and the agent's, and the one place that decides what may happen next. Every
// start, stop, hand-over, retry and pairing step asks it first; the published flags `busy`,
// `recording`, `manual`, `uploading` and `consent` are read off it, never set by hand.
//
//   idle ──beginStart──▶ starting ──started──▶ recording ──beginStop──▶ stopping
//     ▲                     │                                             │
//     │◀────startFailed─────┘                                             │
//     │◀──────────────────────────stopped(no hand-over)───────────────────┤
//     │◀──uploadEnded── uploading ◀──────stopped(hand-over)───────────────┘
//     └──────beginRetry──────▲
//
// Only one phase holds at a time, so at most one capture runs and at most one upload runs.
// Pairing is a step of its own beside the phases: it may overlap the agent's upload (a
// reconnect while the last recording uploads) but nothing the user started.
// A plain value: no I/O, no clock.
class RecordingLifecycle {
  public:
    enum class Phase { idle, starting, recording, stopping, uploading };
    enum class Owner { user, agent };

    Phase phase() const { return phase_; }
    // Who started the recording or upload; meaningful unless idle.
    Owner owner() const { return owner_; }
    // The recording's capture id, from `started` on (and the retried record's id).
    const std::string& record() const { return record_; }
    bool retrying() const { return phase_ == Phase::uploading && retry_; }
    bool pairing() const { return pairing_; }

    // --- the published flags
    bool consent() const { return consent_; }
    // A start, stop, upload, retry or pairing step is under way.
    bool busy() const {
        return pairing_ || phase_ == Phase::starting || phase_ == Phase::stopping ||
               phase_ == Phase::uploading;
    }
    // A capture is writing, or being finished.
    bool recording() const { return phase_ == Phase::recording || phase_ == Phase::stopping; }
    // The recording in progress (and its hand-over) was started by the user.
    bool manual() const;
    bool uploading() const { return phase_ == Phase::uploading; }

    // Whether a recording is starting, running or being finished.
    bool capturing() const { return phase_ != Phase::idle && phase_ != Phase::uploading; }
    // Whether work keeps an agent session from starting now: pairing, or anything but the
    // agent's own upload.
    bool holdsSharing() const;

    // --- transitions; each returns whether it happened, and a refused one changes nothing.
    // The user's approval of the next recording: refused while one starts, runs or stops
    // (it would be cleared at its end). Withdrawing is always allowed.
    bool approve(bool on);
    bool beginPairing();
    // Forgetting the device is a pairing step too, but nothing the user records holds it back.
    bool beginForgetting();
    void endPairing() { pairing_ = false; }
    // From idle only. The agent needs the user's approval; the user's start gives it. The
    // user's start also waits for a pairing step to end.
    bool beginStart(Owner owner);
    bool started(const std::string& record);
    // Back to idle; the approval is used up.
    bool startFailed();
    bool beginStop();
    // The capture is finished (or could not be): the approval is used up. With a hand-over the
    // upload of the same record follows, by the same owner.
    bool stopped(bool handOver);
    bool beginRetry(const std::string& record);
    bool uploadEnded();

  private:
    Phase phase_ = Phase::idle;
    Owner owner_ = Owner::user;
    std::string record_;
    bool retry_ = false;
    bool consent_ = false;
    bool pairing_ = false;
};

const char* phaseText(RecordingLifecycle::Phase phase);

}  // namespace pavix
