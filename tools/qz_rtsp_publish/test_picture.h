// The built-in source's picture: a drifting colour gradient under a
// scrolling texture, shapes that move across it, grain that changes with
// every frame, and the capture time and frame number in white on a dark box.
// The grain plays the part of a camera's sensor noise: detail no prediction
// can guess, so that the encoder spends the bit rate it is given as it does
// on real scenes instead of a fraction of it.
#ifndef TOOLS_QZ_RTSP_PUBLISH_TEST_PICTURE_H_
#define TOOLS_QZ_RTSP_PUBLISH_TEST_PICTURE_H_

#include <cstdint>
#include <vector>

namespace qz_tools {

class TestPicture {
 public:
  // Even sizes of at least 16 by 16.
  TestPicture(int width, int height);

  // Draws picture `number`, captured `time_ms` after the start, into the
  // three planes of a YUV 4:2:0 picture of the constructor's size. Motion
  // follows `number`, so a frame the source drops shows as a jump.
  void Draw(long long number, long long time_ms, uint8_t* const planes[3], const int strides[3]);

 private:
  struct Shape {
    bool disc;
    int size;
    int x0, y0;  // where it starts
    int vx, vy;  // pixels per frame
    uint8_t y, u, v;
  };
  // The span [x_begin, x_end) that `shape`, at (sx, sy), covers on luma row
  // `row`; empty when it misses the row.
  static void Span(const Shape& shape, int sx, int sy, int row, int& x_begin, int& x_end);
  void Position(const Shape& shape, long long number, int& x, int& y) const;
  void DrawText(const char* text,
                int x0,
                int y0,
                int scale,
                uint8_t* const planes[3],
                const int strides[3]) const;

  int width_;
  int height_;
  int period_;                   // of the luma gradient, in pixels
  std::vector<uint8_t> ramp_;    // luma gradient along x + y
  std::vector<uint8_t> u_ramp_;  // chroma gradients along x and y
  std::vector<uint8_t> v_ramp_;
  std::vector<int16_t> texture_;  // tileable; each row of kTextureSize twice
  std::vector<int8_t> grain_;     // read at a random offset on every row
  std::vector<int16_t> line_;     // one luma row before the grain
  std::vector<Shape> shapes_;
  uint32_t random_ = 0x9E3779B9u;  // xorshift32 state
};

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_TEST_PICTURE_H_
