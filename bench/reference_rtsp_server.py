#!/usr/bin/python3
"""GStreamer's own RTSP server, the reference beside which our figures are measured. One live,
shared stream at rtsp://127.0.0.1:PORT/s/ref, in one of two forms:

  reference_rtsp_server.py PORT VIDEO.h264 AUDIO.aac
      an H.264 and an AAC file paced in real time (time to first frame);
  reference_rtsp_server.py PORT --x11-window XID WIDTH HEIGHT FPS KBPS
      an X window captured by ximagesrc and encoded by x264 with the settings of our software
      encoder (veryfast, zerolatency, constant rate, keyframe every 2 s): glass to glass."""
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402


def files_launch(video, audio):
    return (f"( filesrc location={video} ! video/x-h264,stream-format=byte-stream,framerate=30/1 "
            "! h264parse ! identity sync=true ! rtph264pay name=pay0 pt=96 config-interval=-1 "
            f"filesrc location={audio} ! aacparse ! identity sync=true ! rtpmp4gpay name=pay1 pt=97 )")


def window_launch(xid, width, height, fps, kbps):
    return (f"( ximagesrc xid={xid} use-damage=false show-pointer=false "
            f"! video/x-raw,framerate={fps}/1 ! videoscale ! videoconvert "
            f"! video/x-raw,format=I420,width={width},height={height} "
            f"! x264enc tune=zerolatency speed-preset=veryfast bitrate={kbps} key-int-max={2 * int(fps)} "
            "bframes=0 vbv-buf-capacity=250 ! video/x-h264,profile=main "
            # Parameter sets once a second, not before every keyframe's slices (-1): x264's slice
            # threads make several slices a picture, and sets between them make ffmpeg's parser
            # cut pictures in two, so ffmpeg decoded nothing readable from this stream.
            "! rtph264pay name=pay0 pt=96 config-interval=1 )")


def main():
    port = sys.argv[1]
    if sys.argv[2] == "--x11-window":
        launch = window_launch(*sys.argv[3:8])
    else:
        launch = files_launch(sys.argv[2], sys.argv[3])
    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(port)
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(launch)
    # One running pipeline for every client, as a live source would be.
    factory.set_shared(True)
    server.get_mount_points().add_factory("/s/ref", factory)
    server.attach(None)
    print("ready", flush=True)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
