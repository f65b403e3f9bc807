// Linux: AAC-LC through libavcodec's native encoder, raw access units, fed planar float made from
// the block clock's 16-bit samples.
extern "C" {
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "aac_block_clock.h"
#include "ffmpeg_handles.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/encode/aac_encoder.h"

namespace mirell::encode {
namespace {


// The two-byte AAC-LC AudioSpecificConfig. libavcodec appends an explicit "no SBR" extension
// (sync word 0x2B7) to it; players that only know plain AAC-LC configs are safer without it, and
// it says nothing that the object type does not.
std::vector<std::uint8_t> PlainAacLcConfig(std::span<const std::uint8_t> extradata) {
  constexpr std::uint8_t kAacLcObjectType = 2;
  if (extradata.size() >= 2 && (extradata[0] >> 3) == kAacLcObjectType) {
    return {extradata[0], extradata[1]};
  }
  return {extradata.begin(), extradata.end()};
}

class FfmpegAacEncoder final : public AacEncoder {
 public:
  FfmpegAacEncoder(const AVCodec* codec, const AacEncoderConfig& config, std::uint32_t bytes_per_second)
      : codec_(codec),
        name_(codec->name),
        config_(config),
        bytes_per_second_(bytes_per_second),
        clock_(config.sample_rate, config.channels) {}

  void Initialize() {
    context_.reset(avcodec_alloc_context3(codec_));
    if (!context_) throw std::runtime_error("out of memory for the codec context");
    AVCodecContext* context = context_.get();
    context->sample_rate = static_cast<int>(config_.sample_rate);
    av_channel_layout_default(&context->ch_layout, static_cast<int>(config_.channels));
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->bit_rate = static_cast<std::int64_t>(bytes_per_second_) * 8;
    context->profile = FF_PROFILE_AAC_LOW;
    // Times pass through in our own unit, so units carry exactly the block clock's times.
    context->time_base = {1, static_cast<int>(kTicksPerSecond)};
    // The AudioSpecificConfig comes out as extradata; the units stay raw.
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    const int opened = avcodec_open2(context, codec_, nullptr);
    if (opened < 0) throw std::runtime_error("avcodec_open2 failed (" + FfmpegErrorText(opened) + ")");
    MIRELL_CHECK(context->frame_size == static_cast<int>(kAacFrameSamples),
                 "the AAC encoder wants {} samples per frame, not {}", context->frame_size,
                 kAacFrameSamples);
    audio_specific_config_ = PlainAacLcConfig(
        std::span<const std::uint8_t>(context->extradata, static_cast<std::size_t>(std::max(context->extradata_size, 0))));
    frame_.reset(av_frame_alloc());
    packet_.reset(av_packet_alloc());
    if (!frame_ || !packet_) throw std::runtime_error("out of memory for a frame");
    LOG_INFO("{} - AAC-LC {} Hz, {} ch, {} kbps", name_, config_.sample_rate, config_.channels,
             bytes_per_second_ * 8 / 1000);
  }

  void Encode(std::span<const float> interleaved, std::int64_t pts_100ns,
              std::vector<EncodedAudioFrame>& out) override {
    if (interleaved.empty()) return;
    MIRELL_CHECK(interleaved.size() % config_.channels == 0,
                 "{} samples is not a whole number of {}-channel frames", interleaved.size(),
                 config_.channels);
    clock_.Add(interleaved, pts_100ns,
               [&](std::span<const std::int16_t> block, std::int64_t block_pts) {
                 SubmitBlock(block, block_pts, out);
               });
  }

  void Drain(std::vector<EncodedAudioFrame>& out) override {
    clock_.Flush([&](std::span<const std::int16_t> block, std::int64_t block_pts) {
      SubmitBlock(block, block_pts, out);
    });
    const int result = avcodec_send_frame(context_.get(), nullptr);
    if (result < 0 && result != AVERROR_EOF) MIRELL_WARN_HR(result);
    PullOutput(out);
  }

  std::span<const std::uint8_t> audio_specific_config() const override { return audio_specific_config_; }
  std::uint32_t sample_rate() const override { return config_.sample_rate; }
  std::uint32_t channels() const override { return config_.channels; }
  std::uint32_t bitrate_bps() const override { return bytes_per_second_ * 8; }
  const std::string& name() const override { return name_; }

 private:
  void SubmitBlock(std::span<const std::int16_t> block, std::int64_t pts_100ns,
                   std::vector<EncodedAudioFrame>& out) {
    AVFrame* frame = frame_.get();
    av_frame_unref(frame);
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->nb_samples = static_cast<int>(kAacFrameSamples);
    frame->sample_rate = static_cast<int>(config_.sample_rate);
    MIRELL_CHECK_HR(av_channel_layout_copy(&frame->ch_layout, &context_->ch_layout));
    MIRELL_CHECK_HR(av_frame_get_buffer(frame, 0));
    // The encoder takes planar float; the 16-bit values map back exactly.
    for (std::uint32_t channel = 0; channel < config_.channels; ++channel) {
      auto* plane = reinterpret_cast<float*>(frame->data[channel]);
      for (std::uint32_t i = 0; i < kAacFrameSamples; ++i) {
        plane[i] = static_cast<float>(block[i * config_.channels + channel]) / 32768.0f;
      }
    }
    frame->pts = pts_100ns;
    MIRELL_CHECK_HR(avcodec_send_frame(context_.get(), frame));
    PullOutput(out);
  }

  void PullOutput(std::vector<EncodedAudioFrame>& out) {
    for (;;) {
      const int result = avcodec_receive_packet(context_.get(), packet_.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
      MIRELL_CHECK_HR(result);
      EncodedAudioFrame unit;
      unit.data.assign(packet_->data, packet_->data + packet_->size);
      const std::int64_t block_100ns = static_cast<std::int64_t>(kAacFrameSamples) * kTicksPerSecond / config_.sample_rate;
      unit.pts_100ns = packet_->pts != AV_NOPTS_VALUE ? packet_->pts : frames_out_ * block_100ns;
      unit.duration_100ns = packet_->duration > 0 ? packet_->duration : block_100ns;
      ++frames_out_;
      av_packet_unref(packet_.get());
      if (unit.data.empty()) return;
      out.push_back(std::move(unit));
    }
  }

  const AVCodec* codec_;
  std::string name_;
  AacEncoderConfig config_;
  std::uint32_t bytes_per_second_;
  AacBlockClock clock_;
  CodecContextPtr context_;
  FramePtr frame_;
  PacketPtr packet_;
  std::vector<std::uint8_t> audio_specific_config_;
  std::int64_t frames_out_ = 0;
};

}  // namespace

std::unique_ptr<AacEncoder> CreateAacEncoder(const AacEncoderConfig& config) {
  MIRELL_CHECK(config.sample_rate == 44100 || config.sample_rate == 48000,
               "the AAC encoder takes 44100 or 48000 Hz, not {}", config.sample_rate);
  MIRELL_CHECK(config.channels == 1 || config.channels == 2, "{} channels is outside what we share",
               config.channels);
  const std::uint32_t bytes_per_second = SnapAacBytesPerSecond(config.bitrate_bps);
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (codec != nullptr) {
    auto encoder = std::make_unique<FfmpegAacEncoder>(codec, config, bytes_per_second);
    try {
      encoder->Initialize();
      return encoder;
    } catch (const std::exception& error) {
      LOG_WARN("{} rejected our configuration: {}", codec->name, error.what());
    }
  }
  ThrowError("no AAC encoder in libavcodec could be initialised", std::source_location::current());
}

}  // namespace mirell::encode
