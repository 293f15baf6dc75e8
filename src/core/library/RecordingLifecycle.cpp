#include "core/library/RecordingLifecycle.h"

namespace pavix {

using Phase = RecordingLifecycle::Phase;
using Owner = RecordingLifecycle::Owner;

bool RecordingLifecycle::manual() const {
    if (owner_ != Owner::user) {
        return false;
    }
    return phase_ == Phase::recording || phase_ == Phase::stopping ||
           (phase_ == Phase::uploading && !retry_);
}

bool RecordingLifecycle::holdsSharing() const {
    if (pairing_) {
        return true;
    }
    if (phase_ == Phase::idle) {
        return false;
    }
    return !(phase_ == Phase::uploading && owner_ == Owner::agent);
}

bool RecordingLifecycle::approve(bool on) {
    if (on && capturing()) {
        return false;
    }
    consent_ = on;
    return true;
}

bool RecordingLifecycle::beginPairing() {
    if (holdsSharing()) {
        return false;
    }
    pairing_ = true;
    return true;
}

bool RecordingLifecycle::beginForgetting() {
    if (pairing_) {
        return false;
    }
    pairing_ = true;
    return true;
}

bool RecordingLifecycle::beginStart(Owner owner) {
    if (phase_ != Phase::idle) {
        return false;
    }
    if (owner == Owner::agent && !consent_) {
        return false;
    }
    if (owner == Owner::user) {
        if (pairing_) {
            return false;
        }
        consent_ = true;
    }
    phase_ = Phase::starting;
    owner_ = owner;
    record_.clear();
    retry_ = false;
    return true;
}

bool RecordingLifecycle::started(const std::string& record) {
    if (phase_ != Phase::starting) {
        return false;
    }
    phase_ = Phase::recording;
    record_ = record;
    return true;
}

bool RecordingLifecycle::startFailed() {
    if (phase_ != Phase::starting) {
        return false;
    }
    phase_ = Phase::idle;
    consent_ = false;
    return true;
}

bool RecordingLifecycle::beginStop() {
    if (phase_ != Phase::recording) {
        return false;
    }
    phase_ = Phase::stopping;
    return true;
}

bool RecordingLifecycle::stopped(bool handOver) {
    if (phase_ != Phase::stopping) {
        return false;
    }
    consent_ = false;
    phase_ = handOver ? Phase::uploading : Phase::idle;
    return true;
}

bool RecordingLifecycle::beginRetry(const std::string& record) {
    if (phase_ != Phase::idle || pairing_) {
        return false;
    }
    phase_ = Phase::uploading;
    owner_ = Owner::user;
    record_ = record;
    retry_ = true;
    return true;
}

bool RecordingLifecycle::uploadEnded() {
    if (phase_ != Phase::uploading) {
        return false;
    }
    phase_ = Phase::idle;
    retry_ = false;
    return true;
}

const char* phaseText(Phase phase) {
    switch (phase) {
        case Phase::idle:
            return "idle";
        case Phase::starting:
            return "starting";
        case Phase::recording:
            return "recording";
        case Phase::stopping:
            return "stopping";
        case Phase::uploading:
            return "uploading";
    }
    return "idle";
}

}  // namespace pavix
