// CIE L*a*b* to sRGB: the one conversion every reader of Lab pixels shares.
#include "colour/colour.h"

#include <cmath>

namespace brv {

namespace {

// D65 reference white (CIE 1931 2-degree observer), the white point of sRGB,
// so no chromatic adaptation is needed on the way.
constexpr double WHITE_X = 0.95047, WHITE_Y = 1.0, WHITE_Z = 1.08883;

double f_inverse(double t) {
    constexpr double delta = 6.0 / 29.0;
    return t > delta ? t * t * t : 3 * delta * delta * (t - 4.0 / 29.0);
}

uint8_t encode(double linear) {
    double v = linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
    v = v * 255 + 0.5;
    if (!(v > 0)) return 0;  // also catches NaN
    return v >= 255 ? 255 : static_cast<uint8_t>(v);
}

}  // namespace

void cielab_to_bgr(double L, double a, double b, uint8_t *bgr) {
    double fy = (L + 16) / 116;
    double X = WHITE_X * f_inverse(fy + a / 500);
    double Y = WHITE_Y * f_inverse(fy);
    double Z = WHITE_Z * f_inverse(fy - b / 200);
    // XYZ to linear sRGB (IEC 61966-2-1 matrix).
    double r = 3.2404542 * X - 1.5371385 * Y - 0.4985314 * Z;
    double g = -0.9692660 * X + 1.8760108 * Y + 0.0415560 * Z;
    double bl = 0.0556434 * X - 0.2040259 * Y + 1.0572252 * Z;
    bgr[0] = encode(bl);
    bgr[1] = encode(g);
    bgr[2] = encode(r);
}

}  // namespace brv
