#!/usr/bin/env python3
"""Finds bright objects in every frame with a small OpenCV detector inside a
pad probe, attaches them with qxmeta.attach and publishes frames and results
with qxedgesink.

From the repository root, after building (see docs/python.md):

    PYTHONPATH=build/python GST_PLUGIN_PATH=build/plugins /usr/bin/python3 examples/python/detect_and_publish.py

and in a second terminal, to see the boxes on the bus:

    build/tools/qxbus/qxbus echo DetectionBoxData

The default source is videotestsrc's bouncing ball; --source takes any
gst-launch-1.0 source description (a camera: "v4l2src device=/dev/video0").
"""

import argparse
import datetime
import signal
import socket
import sys

import cv2
import gi
import numpy as np

gi.require_version("Gst", "1.0")
from gi.repository import GLib, Gst  # noqa: E402

import qxmeta  # noqa: E402
from qxmeta import Batch, DetectionBox, Device, Frame, Segmentation  # noqa: E402

GROUPS = "VideoFrameData+DetectionBoxData+SegmentationData+DeviceInfoData"
MAP_SIZE = (40, 30)  # cells of the segmentation map (width, height)


def blob_detector():
    """OpenCV's blob detector, tuned to bright, solid objects on a darker background."""
    params = cv2.SimpleBlobDetector_Params()
    params.filterByColor = True
    params.blobColor = 255
    params.filterByArea = True
    params.minArea = 50
    params.maxArea = 1e7
    params.filterByCircularity = params.filterByConvexity = params.filterByInertia = False
    return cv2.SimpleBlobDetector_create(params)


def picture_of(buffer, width, height):
    """The B,G,R picture of a buffer (rows padded to four bytes, as GStreamer lays out BGR)."""
    stride = (width * 3 + 3) & ~3
    data = np.frombuffer(buffer.extract_dup(0, buffer.get_size()), dtype=np.uint8)
    return data[: stride * height].reshape(height, stride)[:, : width * 3].reshape(height, width, 3)


def detect(detector, picture, frame_id, stream_id):
    """The frame's record: a box per blob (score: how bright its box is) and a coarse map of what stands out."""
    gray = cv2.cvtColor(picture, cv2.COLOR_BGR2GRAY)
    height, width = gray.shape
    boxes = []
    for number, point in enumerate(detector.detect(gray)):
        radius = point.size / 2
        x1, y1 = max(point.pt[0] - radius, 0.0), max(point.pt[1] - radius, 0.0)
        x2, y2 = min(point.pt[0] + radius, width - 1.0), min(point.pt[1] + radius, height - 1.0)
        score = float(gray[int(y1) : int(y2) + 1, int(x1) : int(x2) + 1].mean() / 255.0)
        boxes.append(DetectionBox(obj_id=number, obj_label="blob", class_id=1, class_label="bright object",
                                  x1=x1, y1=y1, x2=x2, y2=y2, probability=score))
    _, mask = cv2.threshold(gray, 0, 255, cv2.THRESH_BINARY + cv2.THRESH_OTSU)
    coverage = cv2.resize(mask, MAP_SIZE, interpolation=cv2.INTER_AREA).astype(np.float32) / 255.0
    segmentation = Segmentation(class_ids=(coverage >= 0.5).astype(np.int32),
                                probabilities=np.where(coverage >= 0.5, coverage, 1.0 - coverage),
                                labels={0: "background", 1: "bright object"})
    now = datetime.datetime.now()
    return Frame(stream_id=stream_id, frame_id=frame_id, timestamp=int(now.strftime("%Y%m%d%H%M%S%f")[:-3]),
                 width=width, height=height, depth=8, channels=3, device_idx=0, boxes=boxes,
                 segmentation=segmentation)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--source", default="videotestsrc pattern=ball is-live=true", help="source description")
    parser.add_argument("--num-buffers", type=int, default=-1,
                        help="stop after this many frames (set on the last element of --source)")
    parser.add_argument("--size", default="640x480", help="picture size WIDTHxHEIGHT (default %(default)s)")
    parser.add_argument("--stream-id", default="python-example")
    parser.add_argument("--context-id", help="publish into this flow")
    args = parser.parse_args()
    width, height = (int(v) for v in args.size.split("x"))

    Gst.init(None)
    sink = f"qxedgesink name=sink taggroups={GROUPS}" + (f" context-id={args.context_id}" if args.context_id else "")
    pipeline = Gst.parse_launch(
        f"{args.source}" + (f" num-buffers={args.num_buffers}" if args.num_buffers >= 0 else "")
        + " ! videoconvert ! videoscale"
        f" ! video/x-raw,format=BGR,width={width},height={height} ! {sink}")
    detector = blob_detector()
    device = Device(stream_id=args.stream_id, ip_address="127.0.0.1", uri=args.source, manufacturer="Quorix",
                    model="python example", dev_id=socket.gethostname(), status="running", kind="camera",
                    protocol="gstreamer")
    state = {"frame_id": 0}

    def on_buffer(pad, info):
        buffer = info.get_buffer()
        frame = detect(detector, picture_of(buffer, width, height), state["frame_id"], args.stream_id)
        # Our own reference would make the buffer shared, and attach would then copy it.
        del buffer
        qxmeta.attach(info, Batch(devices=[device], frames=[frame]))
        print(f"frame {frame.frame_id}: {len(frame.boxes)} objects "
              + " ".join(f"[{b.x1:.0f},{b.y1:.0f} {b.x2:.0f},{b.y2:.0f}]" for b in frame.boxes), flush=True)
        state["frame_id"] += 1
        return Gst.PadProbeReturn.OK

    pipeline.get_by_name("sink").get_static_pad("sink").add_probe(Gst.PadProbeType.BUFFER, on_buffer)
    loop = GLib.MainLoop()

    def on_message(bus, message):
        if message.type == Gst.MessageType.ERROR:
            error, details = message.parse_error()
            print(f"error: {error.message} ({details})", file=sys.stderr)
            loop.quit()
        elif message.type == Gst.MessageType.EOS:
            loop.quit()

    bus = pipeline.get_bus()
    bus.add_signal_watch()
    bus.connect("message", on_message)
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGINT, loop.quit)
    if pipeline.set_state(Gst.State.PLAYING) == Gst.StateChangeReturn.FAILURE:
        print("error: the pipeline did not start (is the configuration root found? see docs/configuration.md)",
              file=sys.stderr)
        return 1
    loop.run()
    pipeline.set_state(Gst.State.NULL)
    return 0


if __name__ == "__main__":
    sys.exit(main())
