// FFmpeg's own decoders and ffmpeg-made raw pictures, to check what our encoders make.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace mirell::encode::testing {

// Raw NV12 pictures of ffmpeg's testsrc2 at 30 fps, read one at a time from an ffmpeg process.
class TestPictureSource {
 public:
  TestPictureSource(std::uint32_t width, std::uint32_t height, int frames);
  ~TestPictureSource();
  TestPictureSource(const TestPictureSource&) = delete;
  TestPictureSource& operator=(const TestPictureSource&) = delete;
  // The next picture, or false at the end.
  bool Next(std::vector<std::uint8_t>& picture);

 private:
  std::FILE* pipe_ = nullptr;
  std::size_t frame_bytes_;
};

struct DecodedPicture {
  std::int64_t pts = 0;
  bool key = false;
};

// Decodes units of one codec ("h264" or "aac") one by one.
class Decoder {
 public:
  explicit Decoder(const std::string& codec_name, const std::vector<std::uint8_t>& extradata = {});
  ~Decoder();
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  // Feeds one unit (its pts passed through); returns the pictures or sound frames that came out.
  // Throws std::runtime_error when the decoder reports an error.
  std::vector<DecodedPicture> Decode(const std::vector<std::uint8_t>& unit, std::int64_t pts);
  std::vector<DecodedPicture> Flush();
  // All decoded samples of the first channel (audio only).
  const std::vector<float>& samples() const { return samples_; }
  int sample_rate() const;

 private:
  std::vector<DecodedPicture> Receive();

  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
  std::vector<float> samples_;
};

}  // namespace mirell::encode::testing
