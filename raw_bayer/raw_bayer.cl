// Raw Bayer kernels. Images are rows of ushort samples stored back to back. One work item per
// position (the repairs) or per 2 x 2 cell (split and merge), by a two-dimensional global id.
//
// All arithmetic is on integers, so that every device gives the same result whatever its division
// and whatever the build options are.

// A column at or beyond the width wraps to column 0; a row at or beyond the last one is the last
// one. Negative coordinates are the caller's to avoid.
size_t sample_index(int x, int y, int width, int height) {
  const int column = x < width ? x : 0;
  const int row = y < height - 1 ? y : height - 1;
  return (size_t)row * (size_t)width + (size_t)column;
}

ushort load_ushort(__global const ushort* image, int x, int y, int width, int height) {
  return image[sample_index(x, y, width, height)];
}

ushort load_ushort_offset(__global const ushort* image, int x, int y, int width, int height,
                          size_t offset) {
  return image[sample_index(x, y, width, height) + offset];
}

void store_uhsort(__global ushort* image, int x, int y, int width, int height, ushort value) {
  image[sample_index(x, y, width, height)] = value;
}

// Whether sample / rate, rounded to single precision, is greater than the integer `limit`.
//
// OpenCL allows a division to be off by 2.5 ulp, so the division is not done. The rounded quotient
// is greater than `limit` exactly if the true one is greater than limit + ulp(limit) / 2: a tie
// goes to `limit`, whose mantissa is even because 16 bits leave its low bits zero. With
// e = floor(log2(limit)) and rate = mantissa * 2^exponent that is, in integers,
//   sample * 2^shift > mantissa * (limit * 2^(24 - e) + 1),  shift = 24 - e - exponent.
bool outshines(uint sample, uint limit, float rate) {
  if (as_uint(rate) >= 0x7f800000u) {
    return false;  // Infinite, not a number or with a minus sign: no quotient is above 0.
  }
  if (sample == 0 || limit == 0) {
    return sample != 0;  // The quotient of a positive sample never rounds to 0.
  }
  const uint bits = as_uint(rate);
  const int biased = (int)(bits >> 23);
  const ulong mantissa = biased == 0 ? (bits & 0x7fffff) : ((bits & 0x7fffff) | 0x800000);
  const int exponent = max(biased, 1) - 150;
  const int up = 24 - (31 - (int)clz(limit));
  const int shift = up - exponent;
  const ulong right = mantissa * (((ulong)limit << up) + 1);  // Below 2^49.
  if (shift <= 0) {
    return false;  // The mantissa is normalised here and the right side above any sample.
  }
  return shift >= 49 || ((ulong)sample << shift) > right;
}

uint max4(uint a, uint b, uint c, uint d) { return max(max(a, b), max(c, d)); }

// The rule of kernel_fixBadPixels: what the sample at (x, y) becomes.
ushort fixed_sample(__global const ushort* source, float rate, int x, int y, int width,
                    int height) {
#define AT(dx, dy) ((uint)load_ushort(source, x + (dx), y + (dy), width, height))
  const uint sample = AT(0, 0);
  if (!outshines(sample, max4(AT(0, -1), AT(-1, 0), AT(1, 0), AT(0, 1)), rate)) {
    return (ushort)sample;
  }
  const bool red_or_blue = ((x ^ y) & 1) == 0;
  return (ushort)((red_or_blue ? AT(0, -2) + AT(-2, 0) + AT(2, 0) + AT(0, 2)
                               : AT(-1, -1) + AT(1, -1) + AT(-1, 1) + AT(1, 1)) / 4);
#undef AT
}

bool inside_margin(int x, int y, int width, int height) {
  return x >= 2 && x < width - 2 && y >= 2 && y < height - 2;
}

// The rule of kernel_fixBadPixels2.
ushort fixed_sample2(__global const ushort* source, float rate, int x, int y, int width,
                     int height) {
  const int left = max(x - 1, 0);
  const int right = min(x + 1, width - 1);
  const int above = max(y - 1, 0);
  const int below = min(y + 1, height - 1);
#define AT(column, row) ((uint)load_ushort(source, column, row, width, height))
  const uint a = AT(left, above), b = AT(x, above), c = AT(right, above), d = AT(left, y),
             e = AT(right, y), f = AT(left, below), g = AT(x, below), h = AT(right, below);
  const uint sample = AT(x, y);
#undef AT
  const bool bad = outshines(sample, max(max4(a, b, c, d), max4(e, f, g, h)), rate);
  return (ushort)(bad ? (a + b + c + d + e + f + g + h) / 8 : sample);
}

// In place: a neighbour may already have been replaced when a sample is examined.
__kernel void kernel_fixBadPixels(__global ushort* image, float badPixelRate, int width,
                                  int height) {
  const int x = (int)get_global_id(0);
  const int y = (int)get_global_id(1);
  if (inside_margin(x, y, width, height)) {
    store_uhsort(image, x, y, width, height,
                 fixed_sample(image, badPixelRate, x, y, width, height));
  }
}

__kernel void kernel_fixBadPixels2(__global ushort* image, float badPixelRate, int width,
                                   int height) {
  const int x = (int)get_global_id(0);
  const int y = (int)get_global_id(1);
  if (x < width && y < height) {
    store_uhsort(image, x, y, width, height,
                 fixed_sample2(image, badPixelRate, x, y, width, height));
  }
}

// From an unmodified source: the result does not depend on the order of the work items. `image`
// gets every sample.
__kernel void kernel_fixBadPixelsFrom(__global const ushort* source, __global ushort* image,
                                      float badPixelRate, int width, int height) {
  const int x = (int)get_global_id(0);
  const int y = (int)get_global_id(1);
  if (x < width && y < height) {
    store_uhsort(image, x, y, width, height,
                 inside_margin(x, y, width, height)
                     ? fixed_sample(source, badPixelRate, x, y, width, height)
                     : load_ushort(source, x, y, width, height));
  }
}

__kernel void kernel_fixBadPixels2From(__global const ushort* source, __global ushort* image,
                                       float badPixelRate, int width, int height) {
  const int x = (int)get_global_id(0);
  const int y = (int)get_global_id(1);
  if (x < width && y < height) {
    store_uhsort(image, x, y, width, height,
                 fixed_sample2(source, badPixelRate, x, y, width, height));
  }
}

__kernel void kernel_splitRaw(__global const ushort* rawBorder, __global ushort* g,
                              __global ushort* r, __global ushort* b, int borderSize, int rawWidth,
                              int rawHeight, int gWidth, int gHeight, int rbWidth, int rbHeight) {
  const int x = (int)get_global_id(0);
  const int y = (int)get_global_id(1);
  if (x >= rbWidth || y >= rbHeight) {
    return;
  }
  const int rx = 2 * x + borderSize;
  const int ry = 2 * y + borderSize;
#define RAW(dx, dy) ((uint)load_ushort(rawBorder, rx + (dx), ry + (dy), rawWidth, rawHeight))
  // Everything is read before anything is written: for all the compiler knows, planes overlap.
  const uint red = RAW(0, 0), green_right = RAW(1, 0), green_below = RAW(0, 1), blue = RAW(1, 1);
  // Means are truncated: adding 0.5 to an integer quotient and truncating again changes nothing.
  const uint green_at_red = (RAW(0, -1) + green_right + green_below + RAW(-1, 0)) / 4;
  const uint green_at_blue = (green_right + RAW(2, 1) + RAW(1, 2) + green_below) / 4;
#undef RAW
  store_uhsort(r, x, y, rbWidth, rbHeight, (ushort)red);
  store_uhsort(b, x, y, rbWidth, rbHeight, (ushort)blue);
  store_uhsort(g, 2 * x, 2 * y, gWidth, gHeight, (ushort)green_at_red);
  store_uhsort(g, 2 * x + 1, 2 * y, gWidth, gHeight, (ushort)green_right);
  store_uhsort(g, 2 * x, 2 * y + 1, gWidth, gHeight, (ushort)green_below);
  store_uhsort(g, 2 * x + 1, 2 * y + 1, gWidth, gHeight, (ushort)green_at_blue);
}

// `index` chooses the green plane and the mosaic of a batch; red and blue are always their first
// image.
__kernel void kernel_mergeRaw(__global const ushort* g, __global const ushort* r,
                              __global const ushort* b, __global ushort* raw, int gWidth,
                              int gHeight, int rbWidth, int rbHeight, int rawWidth, int rawHeight,
                              int index) {
  const int x = (int)get_global_id(0);
  const int y = (int)get_global_id(1);
  if (x >= rbWidth || y >= rbHeight) {
    return;
  }
  const size_t size = (size_t)rbWidth * (size_t)rbHeight * 4 * (size_t)index;
  const int rx = 2 * x;
  const int ry = 2 * y;
  const ushort red = load_ushort(r, x, y, rbWidth, rbHeight);
  const ushort green_right = load_ushort_offset(g, rx + 1, ry, gWidth, gHeight, size);
  const ushort green_below = load_ushort_offset(g, rx, ry + 1, gWidth, gHeight, size);
  const ushort blue = load_ushort(b, x, y, rbWidth, rbHeight);
  // Reads follow the access rule, writes do not.
  __global ushort* const row = raw + (size_t)ry * (size_t)rawWidth + (size_t)rx + size;
  __global ushort* const next_row = row + (size_t)rawWidth;
  row[0] = red;
  row[1] = green_right;
  next_row[0] = green_below;
  next_row[1] = blue;
}
