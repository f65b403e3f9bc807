// Linux: H.264 through libavcodec. Hardware encoders (VAAPI through a render node, NVENC) when
// asked for and present, else libx264, each configured for constant bit rate and low latency.
extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
}

#include <atomic>
#include <cerrno>
#include <optional>
#include <stdexcept>

#include "ffmpeg_handles.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/encode/h264_encoder.h"
#include "mirell/media/nal.h"

namespace mirell::encode {
namespace {

constexpr const char* kRenderNode = "/dev/dri/renderD128";
// x264's speed and quality trade-off for live sharing on ordinary machines.
constexpr const char* kX264Preset = "veryfast";
// VBV buffer as a fraction of a second at the target rate: a quarter second keeps the encoder's
// own delay low while leaving a keyframe room for about seven average frames at 30 fps.
constexpr std::uint32_t kVbvBuffersPerSecond = 4;

enum class Family { kX264, kNvenc, kVaapi };

struct Candidate {
  const char* codec_name;
  Family family;
  bool hardware;
};

constexpr Candidate kHardware[] = {{"h264_vaapi", Family::kVaapi, true},
                                   {"h264_nvenc", Family::kNvenc, true}};
constexpr Candidate kSoftware[] = {{"libx264", Family::kX264, false}};

const char* ProfileName(H264Profile profile) {
  switch (profile) {
    case H264Profile::kBaseline: return "baseline";
    case H264Profile::kHigh: return "high";
    case H264Profile::kMain: break;
  }
  return "main";
}

int ProfileId(H264Profile profile) {
  switch (profile) {
    case H264Profile::kBaseline: return FF_PROFILE_H264_CONSTRAINED_BASELINE;
    case H264Profile::kHigh: return FF_PROFILE_H264_HIGH;
    case H264Profile::kMain: break;
  }
  return FF_PROFILE_H264_MAIN;
}

// A private option that the encoder may refuse: refusals are tolerated and logged at debug.
void TrySetOption(AVCodecContext* context, const char* name, const char* value) {
  const int result = av_opt_set(context->priv_data, name, value, 0);
  if (result < 0) LOG_DEBUG("{}={} not accepted ({})", name, value, FfmpegErrorText(result));
}

void CheckAv(int result, const char* what) {
  if (result < 0) throw std::runtime_error(fmt::format("{} failed ({})", what, FfmpegErrorText(result)));
}

class FfmpegH264Encoder final : public H264Encoder {
 public:
  FfmpegH264Encoder(const AVCodec* codec, const Candidate& candidate, const H264EncoderConfig& config)
      : codec_(codec),
        family_(candidate.family),
        name_(codec->name),
        hardware_(candidate.hardware),
        config_(config),
        frame_bytes_(static_cast<std::size_t>(config.width) * config.height * 3 / 2),
        duration_100ns_(static_cast<std::int64_t>(static_cast<std::uint64_t>(config.fps_denominator) *
                                                  kTicksPerSecond / config.fps_numerator)) {}

  void Initialize() {
    context_.reset(avcodec_alloc_context3(codec_));
    if (!context_) throw std::runtime_error("out of memory for the codec context");
    AVCodecContext* context = context_.get();
    const auto gop_frames = static_cast<int>(GopFrames(config_));
    context->width = static_cast<int>(config_.width);
    context->height = static_cast<int>(config_.height);
    context->time_base = {1, static_cast<int>(kTicksPerSecond)};
    context->framerate = {static_cast<int>(config_.fps_numerator), static_cast<int>(config_.fps_denominator)};
    context->pix_fmt = AV_PIX_FMT_NV12;
    context->bit_rate = config_.bitrate_bps;
    context->rc_max_rate = config_.bitrate_bps;
    context->rc_buffer_size = static_cast<int>(config_.bitrate_bps / kVbvBuffersPerSecond);
    context->gop_size = gop_frames;
    context->keyint_min = gop_frames;
    context->max_b_frames = 0;
    context->profile = ProfileId(config_.profile);

    switch (family_) {
      case Family::kX264:
        // Slice threads only: frame threads would hold pictures back and delay every unit.
        context->thread_type = FF_THREAD_SLICE;
        TrySetOption(context, "preset", kX264Preset);
        TrySetOption(context, "tune", "zerolatency");
        TrySetOption(context, "profile", ProfileName(config_.profile));
        TrySetOption(context, "forced-idr", "1");
        TrySetOption(context, "x264-params",
                     "scenecut=0:repeat-headers=1:rc-lookahead=0:sync-lookahead=0:sliced-threads=1");
        break;
      case Family::kNvenc:
        TrySetOption(context, "rc", "cbr");
        TrySetOption(context, "tune", "ull");
        TrySetOption(context, "zerolatency", "1");
        TrySetOption(context, "delay", "0");
        TrySetOption(context, "forced-idr", "1");
        TrySetOption(context, "no-scenecut", "1");
        break;
      case Family::kVaapi:
        AttachVaapiDevice(context);
        TrySetOption(context, "rc_mode", "CBR");
        TrySetOption(context, "idr_interval", "0");
        break;
    }
    CheckAv(avcodec_open2(context, codec_, nullptr), "avcodec_open2");
    CaptureSequenceHeader(std::span<const std::uint8_t>(context->extradata,
                                                        static_cast<std::size_t>(std::max(context->extradata_size, 0))));
    packet_.reset(av_packet_alloc());
    if (!packet_) throw std::runtime_error("out of memory for a packet");
    LOG_INFO("{} ({}, sync)", name_, hardware_ ? "hardware" : "software");
  }

  void Encode(std::span<const std::uint8_t> nv12, std::int64_t pts_100ns,
              std::vector<EncodedFrame>& out) override {
    MIRELL_CHECK(nv12.size() == frame_bytes_, "NV12 frame is {} bytes, expected {} for {}x{}",
                 nv12.size(), frame_bytes_, config_.width, config_.height);
    FramePtr frame = WrapPicture(nv12.data(), nullptr);
    Submit(std::move(frame), pts_100ns, out);
  }

  void EncodeTexture(const Nv12Frame& texture, std::int64_t pts_100ns,
                     std::vector<EncodedFrame>& out) override {
    MIRELL_CHECK(gpu_input_, "this encoder is not on the GPU path; use Encode with system memory");
    MIRELL_CHECK(!texture.empty(), "no texture to encode");
    MIRELL_CHECK(texture.width() == config_.width && texture.height() == config_.height,
                 "the picture is {}x{}, the encoder {}x{}", texture.width(), texture.height(),
                 config_.width, config_.height);
    Submit(WrapPicture(texture.bytes().data(), &texture), pts_100ns, out);
  }

  bool gpu_input() const override { return gpu_input_; }

  void Drain(std::vector<EncodedFrame>& out) override {
    const int result = avcodec_send_frame(context_.get(), nullptr);
    if (result < 0 && result != AVERROR_EOF) MIRELL_CHECK_HR(result);
    ReceivePackets(out);
  }

  void RequestKeyframe() override { force_keyframe_.store(true); }

  std::span<const std::uint8_t> sequence_header() const override { return sequence_header_; }
  bool is_hardware() const override { return hardware_; }
  const std::string& name() const override { return name_; }

 private:
  void AttachVaapiDevice(AVCodecContext* context) {
    AVBufferRef* device = nullptr;
    CheckAv(av_hwdevice_ctx_create(&device, AV_HWDEVICE_TYPE_VAAPI, kRenderNode, nullptr, 0),
            "opening the VAAPI render node");
    hw_device_.reset(device);
    BufferPtr frames(av_hwframe_ctx_alloc(hw_device_.get()));
    if (!frames) throw std::runtime_error("out of memory for VAAPI frames");
    auto* frames_context = reinterpret_cast<AVHWFramesContext*>(frames->data);
    frames_context->format = AV_PIX_FMT_VAAPI;
    frames_context->sw_format = AV_PIX_FMT_NV12;
    frames_context->width = static_cast<int>(config_.width);
    frames_context->height = static_cast<int>(config_.height);
    frames_context->initial_pool_size = 4;
    CheckAv(av_hwframe_ctx_init(frames.get()), "av_hwframe_ctx_init");
    context->pix_fmt = AV_PIX_FMT_VAAPI;
    context->hw_frames_ctx = av_buffer_ref(frames.get());
  }

  // A frame over the caller's NV12 bytes. With `owner`, the frame holds a reference to its
  // storage, so libavcodec can keep it without copying; without, libavcodec copies.
  FramePtr WrapPicture(const std::uint8_t* pixels, const Nv12Frame* owner) {
    FramePtr frame(av_frame_alloc());
    if (!frame) throw std::runtime_error("out of memory for a frame");
    frame->format = AV_PIX_FMT_NV12;
    frame->width = static_cast<int>(config_.width);
    frame->height = static_cast<int>(config_.height);
    auto* data = const_cast<std::uint8_t*>(pixels);
    frame->data[0] = data;
    frame->data[1] = data + static_cast<std::size_t>(config_.width) * config_.height;
    frame->linesize[0] = static_cast<int>(config_.width);
    frame->linesize[1] = static_cast<int>(config_.width);
    if (owner != nullptr) {
      auto* keeper = new std::shared_ptr<const std::uint8_t[]>(owner->storage());
      frame->buf[0] = av_buffer_create(
          data, frame_bytes_,
          [](void* opaque, std::uint8_t*) { delete static_cast<std::shared_ptr<const std::uint8_t[]>*>(opaque); },
          keeper, AV_BUFFER_FLAG_READONLY);
      if (frame->buf[0] == nullptr) {
        delete keeper;
        throw std::runtime_error("out of memory for a frame reference");
      }
    }
    return frame;
  }

  void Submit(FramePtr frame, std::int64_t pts_100ns, std::vector<EncodedFrame>& out) {
    frame->pts = pts_100ns;
    if (force_keyframe_.exchange(false)) frame->pict_type = AV_PICTURE_TYPE_I;
    if (family_ == Family::kVaapi) frame = Upload(std::move(frame));
    MIRELL_CHECK_HR(avcodec_send_frame(context_.get(), frame.get()));
    ReceivePackets(out);
  }

  FramePtr Upload(FramePtr frame) {
    FramePtr uploaded(av_frame_alloc());
    if (!uploaded) throw std::runtime_error("out of memory for a frame");
    MIRELL_CHECK_HR(av_hwframe_get_buffer(context_->hw_frames_ctx, uploaded.get(), 0));
    MIRELL_CHECK_HR(av_hwframe_transfer_data(uploaded.get(), frame.get(), 0));
    uploaded->pts = frame->pts;
    uploaded->pict_type = frame->pict_type;
    return uploaded;
  }

  void ReceivePackets(std::vector<EncodedFrame>& out) {
    for (;;) {
      const int result = avcodec_receive_packet(context_.get(), packet_.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
      MIRELL_CHECK_HR(result);
      AppendFrame(*packet_, out);
      av_packet_unref(packet_.get());
    }
  }

  void AppendFrame(const AVPacket& packet, std::vector<EncodedFrame>& out) {
    const std::span<const std::uint8_t> data(packet.data, static_cast<std::size_t>(packet.size));
    EncodedFrame frame;
    frame.keyframe = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    if (frame.keyframe) CaptureSequenceHeader(data);
    frame.pts_100ns = packet.pts == AV_NOPTS_VALUE ? 0 : packet.pts;
    frame.duration_100ns = packet.duration > 0 ? packet.duration : duration_100ns_;
    if (frame.keyframe && !sequence_header_.empty() && !media::FirstNalIs(data, 7)) {
      frame.data.reserve(sequence_header_.size() + data.size());
      frame.data.assign(sequence_header_.begin(), sequence_header_.end());
    }
    frame.data.insert(frame.data.end(), data.begin(), data.end());
    out.push_back(std::move(frame));
  }

  // Keeps the SPS and PPS of `annex_b` once both have been seen.
  void CaptureSequenceHeader(std::span<const std::uint8_t> annex_b) {
    if (!sequence_header_.empty() || annex_b.empty()) return;
    std::vector<std::uint8_t> header;
    bool sps = false, pps = false;
    for (const auto nal : media::SplitAnnexB(annex_b)) {
      const int type = nal.empty() ? 0 : nal[0] & 0x1F;
      if (type != 7 && type != 8) continue;
      (type == 7 ? sps : pps) = true;
      media::AppendNal(header, nal);
    }
    if (sps && pps) {
      sequence_header_ = std::move(header);
      LOG_DEBUG("sequence header bytes={}", sequence_header_.size());
    }
  }

  const AVCodec* codec_;
  Family family_;
  std::string name_;
  bool hardware_;
  H264EncoderConfig config_;
  std::size_t frame_bytes_;
  std::int64_t duration_100ns_;
  // Every encoder here takes the shared NV12 picture as it is (VAAPI uploads it).
  bool gpu_input_ = true;
  std::atomic<bool> force_keyframe_{false};
  BufferPtr hw_device_;
  CodecContextPtr context_;
  PacketPtr packet_;
  std::vector<std::uint8_t> sequence_header_;
};

// A hardware encoder's refusal is expected on most machines (no such device, no driver) and is
// said at info; the fall-back to software says it once at warn. A software encoder's refusal is
// a fault.
std::unique_ptr<H264Encoder> TryCreate(const H264EncoderConfig& config,
                                       std::span<const Candidate> candidates, bool hardware) {
  for (const auto& candidate : candidates) {
    const AVCodec* codec = avcodec_find_encoder_by_name(candidate.codec_name);
    if (codec == nullptr) {
      LOG_DEBUG("{} is not in this libavcodec", candidate.codec_name);
      continue;
    }
    auto encoder = std::make_unique<FfmpegH264Encoder>(codec, candidate, config);
    try {
      encoder->Initialize();
      return encoder;
    } catch (const std::exception& error) {
      if (hardware) {
        LOG_INFO("{} rejected our configuration: {}", candidate.codec_name, error.what());
      } else {
        LOG_WARN("{} rejected our configuration: {}", candidate.codec_name, error.what());
      }
    }
  }
  return nullptr;
}

}  // namespace

std::unique_ptr<H264Encoder> CreateH264Encoder(const H264EncoderConfig& config) {
  MIRELL_CHECK(config.width % 2 == 0 && config.height % 2 == 0,
               "NV12 requires even dimensions, got {}x{}", config.width, config.height);
  MIRELL_CHECK(config.fps_numerator > 0 && config.fps_denominator > 0,
               "frame rate must be positive");
  if (config.prefer_hardware) {
    if (auto encoder = TryCreate(config, kHardware, true)) return encoder;
    LOG_WARN("no usable hardware H.264 encoder; falling back to software. Expect significant CPU "
             "cost at this resolution.");
  }
  auto encoder = TryCreate(config, kSoftware, false);
  if (!encoder) ThrowError("no H.264 encoder in libavcodec could be initialised", std::source_location::current());
  return encoder;
}

}  // namespace mirell::encode
