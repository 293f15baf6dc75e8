#pragma once

#include <atspi/atspi.h>

#include <memory>
#include <optional>
#include <string>

#include "core/capture/CaptureRect.h"

namespace pavix {

// Small owned wrappers around the libatspi calls that the reader and the actions share. Each
// call is a round trip to an application, bounded by the AT-SPI time-out; a failed call
// reads as nothing (an empty text, no child, an invalid role) and its error is freed.
namespace AtspiCalls {

// An owned GObject reference.
template <class T>
struct Unref {
    void operator()(T* object) const {
        if (object) {
            g_object_unref(object);
        }
    }
};
template <class T>
using Ref = std::unique_ptr<T, Unref<T>>;

// Starts libatspi on the calling thread (once per process) with the time-out of every call.
void start(int timeoutMs);
// The text of a call that returns an owned string; empty when the call failed.
std::string take(gchar* text, GError* error);
// Whether a call succeeded; frees its error.
bool succeeded(GError* error);
std::string textOf(AtspiAccessible* accessible, int limit);
AtspiRole roleOf(AtspiAccessible* accessible);
std::string nameOf(AtspiAccessible* accessible);
int childCount(AtspiAccessible* accessible);
Ref<AtspiAccessible> childAt(AtspiAccessible* accessible, int index);
// A shared handle that keeps its own reference to the accessible.
std::shared_ptr<const void> handleOf(AtspiAccessible* accessible);
bool hasState(AtspiAccessible* accessible, AtspiStateType state);
// The element's frame on screen; none when it has no place (see AtspiElementRules::frameOf).
std::optional<CaptureRect> extentsOf(AtspiAccessible* accessible);

}  // namespace AtspiCalls
}  // namespace pavix
