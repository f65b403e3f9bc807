#!/usr/bin/python3
"""GStreamer's own RTSP server, serving an H.264 and an AAC file as one live, shared stream at
rtsp://127.0.0.1:PORT/s/ref, paced in real time. The reference beside which our server's
time to first frame is measured. Usage: reference_rtsp_server.py PORT VIDEO.h264 AUDIO.aac"""
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402


def main():
    port, video, audio = sys.argv[1], sys.argv[2], sys.argv[3]
    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(port)
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(
        f"( filesrc location={video} ! video/x-h264,stream-format=byte-stream,framerate=30/1 "
        "! h264parse ! identity sync=true ! rtph264pay name=pay0 pt=96 config-interval=-1 "
        f"filesrc location={audio} ! aacparse ! identity sync=true ! rtpmp4gpay name=pay1 pt=97 )")
    # One running pipeline for every client, as a live source would be.
    factory.set_shared(True)
    server.get_mount_points().add_factory("/s/ref", factory)
    server.attach(None)
    print("ready", flush=True)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
