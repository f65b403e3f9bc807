#include "decode_support.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
}

#include <cerrno>
#include <stdexcept>

namespace mirell::encode::testing {

TestPictureSource::TestPictureSource(std::uint32_t width, std::uint32_t height, int frames)
    : frame_bytes_(static_cast<std::size_t>(width) * height * 3 / 2) {
  const std::string command = "ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=" +
                              std::to_string(width) + "x" + std::to_string(height) +
                              ":rate=30 -frames:v " + std::to_string(frames) +
                              " -pix_fmt nv12 -f rawvideo -";
  pipe_ = popen(command.c_str(), "r");
  if (pipe_ == nullptr) throw std::runtime_error("cannot run ffmpeg");
}

TestPictureSource::~TestPictureSource() {
  if (pipe_ != nullptr) pclose(pipe_);
}

bool TestPictureSource::Next(std::vector<std::uint8_t>& picture) {
  picture.resize(frame_bytes_);
  return std::fread(picture.data(), 1, frame_bytes_, pipe_) == frame_bytes_;
}

Decoder::Decoder(const std::string& codec_name, const std::vector<std::uint8_t>& extradata) {
  const AVCodec* codec = avcodec_find_decoder_by_name(codec_name.c_str());
  if (codec == nullptr) throw std::runtime_error("no decoder " + codec_name);
  context_ = avcodec_alloc_context3(codec);
  if (!extradata.empty()) {
    context_->extradata = static_cast<std::uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::copy(extradata.begin(), extradata.end(), context_->extradata);
    context_->extradata_size = static_cast<int>(extradata.size());
  }
  // One thread: a picture comes out for each unit that completes one.
  context_->thread_count = 1;
  if (avcodec_open2(context_, codec, nullptr) < 0) throw std::runtime_error("cannot open " + codec_name);
  frame_ = av_frame_alloc();
  packet_ = av_packet_alloc();
}

Decoder::~Decoder() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  avcodec_free_context(&context_);
}

int Decoder::sample_rate() const { return context_->sample_rate; }

std::vector<DecodedPicture> Decoder::Decode(const std::vector<std::uint8_t>& unit, std::int64_t pts) {
  av_packet_unref(packet_);
  if (av_new_packet(packet_, static_cast<int>(unit.size())) < 0) throw std::runtime_error("packet");
  std::copy(unit.begin(), unit.end(), packet_->data);
  packet_->pts = pts;
  const int sent = avcodec_send_packet(context_, packet_);
  if (sent < 0) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(sent, text, sizeof(text));
    throw std::runtime_error(std::string("decoder refused a unit: ") + text);
  }
  return Receive();
}

std::vector<DecodedPicture> Decoder::Flush() {
  avcodec_send_packet(context_, nullptr);
  return Receive();
}

std::vector<DecodedPicture> Decoder::Receive() {
  std::vector<DecodedPicture> pictures;
  for (;;) {
    const int result = avcodec_receive_frame(context_, frame_);
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) break;
    if (result < 0) throw std::runtime_error("decoding failed");
    pictures.push_back({frame_->pts, frame_->key_frame != 0});
    if (frame_->nb_samples > 0 && frame_->format == AV_SAMPLE_FMT_FLTP) {
      const auto* plane = reinterpret_cast<const float*>(frame_->data[0]);
      samples_.insert(samples_.end(), plane, plane + frame_->nb_samples);
    }
    av_frame_unref(frame_);
  }
  return pictures;
}

}  // namespace mirell::encode::testing
