#pragma once

#include <algorithm>
#include <cmath>

namespace pavix {

// A rectangle on the virtual screen in points, origin at the top-left. A rectangle with a width
// or height that is not positive is empty.
struct CaptureRect {
    double x = 0, y = 0, width = 0, height = 0;

    double maxX() const { return x + width; }
    double maxY() const { return y + height; }
    bool empty() const { return !(width > 0) || !(height > 0); }

    // The common part of both rectangles; empty when they do not overlap.
    CaptureRect intersection(const CaptureRect& other) const {
        double left = std::max(x, other.x), top = std::max(y, other.y);
        double right = std::min(maxX(), other.maxX()), bottom = std::min(maxY(), other.maxY());
        if (right <= left || bottom <= top) {
            return {};
        }
        return {left, top, right - left, bottom - top};
    }

    // Grown by `amount` on every side (shrunk when negative).
    CaptureRect outset(double amount) const {
        return {x - amount, y - amount, width + 2 * amount, height + 2 * amount};
    }

    // The smallest rectangle with whole-number edges that contains this one.
    CaptureRect integral() const {
        double left = std::floor(x), top = std::floor(y);
        return {left, top, std::ceil(maxX()) - left, std::ceil(maxY()) - top};
    }

    bool contains(double px, double py) const {
        return px >= x && px < maxX() && py >= y && py < maxY();
    }

    bool operator==(const CaptureRect&) const = default;
};

}  // namespace pavix
