#include "camm/interpolation.h"

#include <array>
#include <cmath>

namespace camm {
namespace {

using Quaternion = std::array<double, 4>;  // w, x, y, z; a unit

Quaternion FromRotationVector(const AngleAxis& v) {
  const double angle = std::hypot(v.x_rad, v.y_rad, v.z_rad);
  // sin(angle / 2) / angle has the limit 1/2.
  const double scale = angle > 1e-9 ? std::sin(angle / 2) / angle : 0.5;
  return {std::cos(angle / 2), v.x_rad * scale, v.y_rad * scale, v.z_rad * scale};
}

AngleAxis ToRotationVector(Quaternion q) {
  if (q[0] < 0) q = {-q[0], -q[1], -q[2], -q[3]};
  const double sine = std::hypot(q[1], q[2], q[3]);
  const double scale = sine > 1e-9 ? 2 * std::atan2(sine, q[0]) / sine : 2;
  return {static_cast<float>(q[1] * scale), static_cast<float>(q[2] * scale),
          static_cast<float>(q[3] * scale)};
}

}  // namespace

// Spherical linear interpolation: K. Shoemake, Animating Rotation with Quaternion Curves, 1985.
template <>
AngleAxis Between(const AngleAxis& a, const AngleAxis& b, double part) {
  if (part == 0) return a;
  if (part == 1) return b;
  const Quaternion from = FromRotationVector(a);
  Quaternion to = FromRotationVector(b);
  double cosine = 0;
  for (std::size_t i = 0; i < 4; ++i) cosine += from[i] * to[i];
  if (cosine < 0) {  // the same rotation, less far away
    cosine = -cosine;
    for (double& component : to) component = -component;
  }
  const double angle = std::acos(std::min(cosine, 1.0));
  const double sine = std::sin(angle);
  const double from_weight = sine > 1e-9 ? std::sin((1 - part) * angle) / sine : 1 - part;
  const double to_weight = sine > 1e-9 ? std::sin(part * angle) / sine : part;
  Quaternion between{};
  for (std::size_t i = 0; i < 4; ++i) between[i] = from_weight * from[i] + to_weight * to[i];
  return ToRotationVector(between);
}

}  // namespace camm
