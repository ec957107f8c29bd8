#include "tools/qz_rtsp_publish/test_picture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace qz_tools {
namespace {

constexpr int kTextureSize = 256;  // a power of two: coordinates wrap with a mask
constexpr int kGrainSize = 1 << 16;
constexpr int kGrainAmplitude = 6;  // luma steps either way

uint32_t NextRandom(uint32_t& state) {
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

// A triangle wave from 0 up to `peak` and back over `period`.
int Triangle(long long i, int period, int peak) {
  const int phase = static_cast<int>(i % period);
  const int half = period / 2;
  return (phase < half ? phase : period - phase) * peak / half;
}

// Adds value noise that tiles over the texture: random values on a grid of
// `cell` pixels, interpolated bilinearly in between.
void AddValueNoise(std::vector<int16_t>& texture, int cell, int amplitude, uint32_t& random) {
  const int cells = kTextureSize / cell;
  std::vector<int> grid(static_cast<size_t>(cells * cells));
  for (int& value : grid) {
    value = static_cast<int>(NextRandom(random) % (2 * amplitude + 1)) - amplitude;
  }
  auto at = [&](int gx, int gy) { return grid[(gy % cells) * cells + gx % cells]; };
  for (int y = 0; y < kTextureSize; ++y) {
    const int gy = y / cell;
    const int fy = y % cell;
    for (int x = 0; x < kTextureSize; ++x) {
      const int gx = x / cell;
      const int fx = x % cell;
      const int top = at(gx, gy) * (cell - fx) + at(gx + 1, gy) * fx;
      const int bottom = at(gx, gy + 1) * (cell - fx) + at(gx + 1, gy + 1) * fx;
      texture[y * kTextureSize + x] += (top * (cell - fy) + bottom * fy) / (cell * cell);
    }
  }
}

// The two per-pixel passes over a luma row. They run in blocks of a fixed
// size on pointers that do not alias, which the compiler turns into vector
// code at -O2; what is left over goes one by one.
constexpr int kBlock = 16;

void AddRow(const uint8_t* __restrict ramp,
            const int16_t* __restrict texture,
            int16_t* __restrict line,
            int n) {
  int x = 0;
  for (; x + kBlock <= n; x += kBlock) {
    for (int k = 0; k < kBlock; ++k) {
      line[x + k] = static_cast<int16_t>(ramp[x + k] + texture[x + k]);
    }
  }
  for (; x < n; ++x) {
    line[x] = static_cast<int16_t>(ramp[x] + texture[x]);
  }
}

void AddGrain(const int16_t* __restrict line,
              const int8_t* __restrict grain,
              uint8_t* __restrict out,
              int n) {
  int x = 0;
  // Clipped to the video range without a function call: unoptimized builds
  // (the sanitizer ones) would pay one per pixel.
  for (; x + kBlock <= n; x += kBlock) {
    for (int k = 0; k < kBlock; ++k) {
      const int v = line[x + k] + grain[x + k];
      out[x + k] = static_cast<uint8_t>(v < 16 ? 16 : v > 235 ? 235 : v);
    }
  }
  for (; x < n; ++x) {
    const int v = line[x] + grain[x];
    out[x] = static_cast<uint8_t>(v < 16 ? 16 : v > 235 ? 235 : v);
  }
}

// 5x7 glyphs for the digits, ':' and '.': one byte a row, five bits.
const uint8_t kFont[12][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
    {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00},  // ':'
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C},  // '.'
};

// Fills a rectangle of one plane, clipped to the plane.
void Fill(uint8_t* plane, int stride, int w, int h, int x0, int y0, int x1, int y1, uint8_t value) {
  x0 = std::max(x0, 0);
  y0 = std::max(y0, 0);
  x1 = std::min(x1, w);
  y1 = std::min(y1, h);
  for (int y = y0; y < y1 && x0 < x1; ++y) {
    std::memset(plane + y * stride + x0, value, static_cast<size_t>(x1 - x0));
  }
}

}  // namespace

TestPicture::TestPicture(int width, int height)
    : width_(width), height_(height), period_(std::max(64, (width + height) / 2)) {
  ramp_.resize(static_cast<size_t>(width + height + period_));
  for (size_t i = 0; i < ramp_.size(); ++i) {
    ramp_[i] = static_cast<uint8_t>(48 + Triangle(static_cast<long long>(i), period_, 120));
  }
  // Chroma rows are half as long: one period of the ramp and the row it shifts over.
  u_ramp_.resize(static_cast<size_t>(width));
  v_ramp_.resize(static_cast<size_t>(height));
  for (size_t i = 0; i < u_ramp_.size(); ++i) {
    u_ramp_[i] = static_cast<uint8_t>(80 + Triangle(static_cast<long long>(i), width / 2, 96));
  }
  for (size_t i = 0; i < v_ramp_.size(); ++i) {
    v_ramp_[i] = static_cast<uint8_t>(80 + Triangle(static_cast<long long>(i), height / 2, 96));
  }
  std::vector<int16_t> texture(static_cast<size_t>(kTextureSize * kTextureSize), 0);
  AddValueNoise(texture, 64, 40, random_);
  AddValueNoise(texture, 16, 18, random_);
  AddValueNoise(texture, 4, 8, random_);
  texture_.resize(texture.size() * 2);
  for (int y = 0; y < kTextureSize; ++y) {
    const int16_t* row = &texture[static_cast<size_t>(y * kTextureSize)];
    std::copy(row, row + kTextureSize, &texture_[static_cast<size_t>(y * 2 * kTextureSize)]);
    std::copy(row, row + kTextureSize,
              &texture_[static_cast<size_t>(y * 2 * kTextureSize + kTextureSize)]);
  }
  grain_.resize(kGrainSize);
  for (int8_t& g : grain_) {
    g = static_cast<int8_t>(static_cast<int>(NextRandom(random_) % (2 * kGrainAmplitude + 1)) -
                            kGrainAmplitude);
  }
  line_.resize(static_cast<size_t>(width));
  const int h = height;
  // Discs and squares of several sizes and colours, each at its own speed.
  shapes_ = {
      {true, h / 4, 0, h / 8, 5, 3, 200, 90, 170},
      {false, h / 5, width / 2, 0, -4, 2, 70, 180, 100},
      {true, h / 7, width / 3, h / 2, 7, -5, 150, 60, 80},
      {false, h / 9, width - h / 9, h / 3, -3, -6, 230, 128, 128},
  };
}

void TestPicture::Position(const Shape& shape, long long number, int& x, int& y) const {
  // Bounces between the edges: a triangle wave over twice the free range.
  const int range_x = std::max(1, width_ - shape.size);
  const int range_y = std::max(1, height_ - shape.size);
  const long long px = shape.x0 + number * shape.vx;
  const long long py = shape.y0 + number * shape.vy;
  x = Triangle(((px % (2 * range_x)) + 2 * range_x), 2 * range_x, range_x);
  y = Triangle(((py % (2 * range_y)) + 2 * range_y), 2 * range_y, range_y);
}

void TestPicture::Span(const Shape& shape, int sx, int sy, int row, int& x_begin, int& x_end) {
  x_begin = x_end = 0;
  const int dy = row - sy;
  if (dy < 0 || dy >= shape.size) {
    return;
  }
  if (!shape.disc) {
    x_begin = sx;
    x_end = sx + shape.size;
    return;
  }
  // Half the chord of the disc at this row, from r^2 = dx^2 + dy^2.
  const int r = shape.size / 2;
  const int d = dy - r;
  const int half = static_cast<int>(std::sqrt(static_cast<double>(r * r - d * d)));
  x_begin = sx + r - half;
  x_end = sx + r + half;
}

void TestPicture::DrawText(const char* text,
                           int x0,
                           int y0,
                           int scale,
                           uint8_t* const planes[3],
                           const int strides[3]) const {
  const int len = static_cast<int>(std::strlen(text));
  // The dark box keeps the digits legible on any background, on luma and
  // chroma alike (neutral grey there).
  const int bx0 = x0 - 2 * scale;
  const int by0 = y0 - 2 * scale;
  const int bx1 = x0 + len * 6 * scale + scale;
  const int by1 = y0 + 9 * scale;
  Fill(planes[0], strides[0], width_, height_, bx0, by0, bx1, by1, 16);
  for (int p = 1; p < 3; ++p) {
    Fill(planes[p], strides[p], width_ / 2, height_ / 2, bx0 / 2, by0 / 2, (bx1 + 1) / 2,
         (by1 + 1) / 2, 128);
  }
  for (int c = 0; c < len; ++c) {
    const int glyph = text[c] == ':' ? 10 : text[c] == '.' ? 11 : text[c] - '0';
    if (glyph < 0 || glyph > 11) {
      continue;
    }
    for (int row = 0; row < 7; ++row) {
      for (int col = 0; col < 5; ++col) {
        if ((kFont[glyph][row] >> (4 - col)) & 1) {
          const int x = x0 + (c * 6 + col) * scale;
          const int y = y0 + row * scale;
          Fill(planes[0], strides[0], width_, height_, x, y, x + scale, y + scale, 235);
        }
      }
    }
  }
}

void TestPicture::Draw(long long number,
                       long long time_ms,
                       uint8_t* const planes[3],
                       const int strides[3]) {
  const int w = width_;
  const int h = height_;
  const int shift = static_cast<int>(number * 2 % period_);
  const int tx = static_cast<int>(number * 3);
  const int ty = static_cast<int>(number);
  std::vector<int> sx(shapes_.size()), sy(shapes_.size());
  for (size_t i = 0; i < shapes_.size(); ++i) {
    Position(shapes_[i], number, sx[i], sy[i]);
  }
  for (int y = 0; y < h; ++y) {
    // Texture rows are stored twice over, so that a run of kTextureSize
    // pixels from any offset reads them in one piece.
    const int16_t* texture = &texture_[static_cast<size_t>(
        ((y + ty) & (kTextureSize - 1)) * 2 * kTextureSize + (tx & (kTextureSize - 1)))];
    const uint8_t* ramp = &ramp_[static_cast<size_t>(y + shift)];
    int16_t* line = line_.data();
    for (int x0 = 0; x0 < w; x0 += kTextureSize) {
      AddRow(ramp + x0, texture, line + x0, std::min(kTextureSize, w - x0));
    }
    for (size_t i = 0; i < shapes_.size(); ++i) {
      int x_begin = 0, x_end = 0;
      Span(shapes_[i], sx[i], sy[i], y, x_begin, x_end);
      x_begin = std::min(std::max(x_begin, 0), w);
      x_end = std::min(std::max(x_end, x_begin), w);
      std::fill(line + x_begin, line + x_end, static_cast<int16_t>(shapes_[i].y));
    }
    const int8_t* grain = &grain_[NextRandom(random_) % static_cast<uint32_t>(kGrainSize - w)];
    AddGrain(line, grain, planes[0] + y * strides[0], w);
  }
  const int cw = w / 2;
  const int ch = h / 2;
  const int u_shift = static_cast<int>(number % (cw > 0 ? cw : 1));
  const int v_shift = static_cast<int>(number % (ch > 0 ? ch : 1));
  for (int y = 0; y < ch; ++y) {
    uint8_t* u = planes[1] + y * strides[1];
    uint8_t* v = planes[2] + y * strides[2];
    std::memcpy(u, &u_ramp_[static_cast<size_t>(u_shift)], static_cast<size_t>(cw));
    std::memset(v, v_ramp_[static_cast<size_t>(y + v_shift)], static_cast<size_t>(cw));
    for (size_t i = 0; i < shapes_.size(); ++i) {
      int x_begin = 0, x_end = 0;
      Span(shapes_[i], sx[i], sy[i], 2 * y, x_begin, x_end);
      x_begin = std::min(std::max(x_begin / 2, 0), cw);
      x_end = std::min(std::max((x_end + 1) / 2, x_begin), cw);
      if (x_begin < x_end) {
        std::memset(u + x_begin, shapes_[i].u, static_cast<size_t>(x_end - x_begin));
        std::memset(v + x_begin, shapes_[i].v, static_cast<size_t>(x_end - x_begin));
      }
    }
  }
  char text[32];
  std::snprintf(text, sizeof(text), "%02lld:%02lld:%02lld.%03lld", time_ms / 3600000,
                time_ms / 60000 % 60, time_ms / 1000 % 60, time_ms % 1000);
  const int scale = std::max(2, w / 120);
  DrawText(text, w / 16, h / 8, scale, planes, strides);
  std::snprintf(text, sizeof(text), "%lld", number);
  DrawText(text, w / 16, h / 8 + 11 * scale, scale / 2 + 1, planes, strides);
}

}  // namespace qz_tools
