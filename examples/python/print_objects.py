#!/usr/bin/env python3
"""Subscribes to the bus with qxedgesrc and prints, for every frame that
arrives, how many objects were found in it and of which classes.

From the repository root, after building (see docs/python.md):

    PYTHONPATH=build/python GST_PLUGIN_PATH=build/plugins /usr/bin/python3 examples/python/print_objects.py

It waits ("waiting for marlet data...") until a publisher runs, for example
examples/python/detect_and_publish.py or the gst-launch-1.0 publishers of the
README. --json prints each frame's whole record as one JSON line instead.
"""

import argparse
import collections
import dataclasses
import json
import signal
import sys
import time

import gi

gi.require_version("Gst", "1.0")
from gi.repository import GLib, Gst  # noqa: E402

import qxmeta  # noqa: E402

RESULT_GROUPS = "ClassificationData+DetectionBoxData+SegmentationData+DeviceInfoData"


def describe(frame):
    """One line: frame id, stream, object count by class, the frame's best class, the map's size."""
    counts = collections.Counter(box.class_label or f"class {box.class_id}" for box in frame.boxes)
    text = f"frame {frame.frame_id} ({frame.stream_id}): {len(frame.boxes)} objects"
    if counts:
        text += " - " + ", ".join(f"{n} {label}" for label, n in counts.most_common())
    best = max(frame.classifications, key=lambda c: c.probability, default=None)
    if best is not None:
        text += f"; frame class {best.label} ({best.probability:.2f})"
    if frame.segmentation is not None:
        rows, width = frame.segmentation.shape
        text += f"; segmentation {width}x{rows}"
    return text


def as_json(batch):
    """The record as JSON; NumPy arrays become nested lists."""
    return json.dumps(dataclasses.asdict(batch), default=lambda value: value.tolist())


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--taggroups", default=RESULT_GROUPS, help="qxedgesrc taggroups (default: %(default)s)")
    parser.add_argument("--context-id", help="receive only this flow")
    # Separate tag groups: frame-exact pairing gives each frame the results of its own frame id.
    parser.add_argument("--pairing", default="frame-id", choices=("frame-id", "compatible"),
                        help="qxedgesrc pairing (default: %(default)s)")
    parser.add_argument("--caps", default="video/x-raw,format=BGR,framerate=30/1", help="caps after the source")
    parser.add_argument("--count", type=int, default=0, help="stop after this many frames")
    parser.add_argument("--idle", type=float, default=0, help="stop when no frame came for this many seconds")
    parser.add_argument("--json", action="store_true", help="print each record as JSON")
    args = parser.parse_args()

    # The source waits for its first frame inside the state change below; keep
    # Ctrl-C working while it does.
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    Gst.init(None)
    source = f"qxedgesrc pairing={args.pairing} taggroups={args.taggroups}" + (
        f" context-id={args.context_id}" if args.context_id else "")
    pipeline = Gst.parse_launch(f"{source} ! {args.caps} ! fakesink name=sink")
    loop = GLib.MainLoop()
    seen = {"frames": 0, "last": time.monotonic()}

    def on_buffer(pad, info):
        batch = qxmeta.get(info)
        seen["frames"] += 1
        seen["last"] = time.monotonic()
        if batch is None:
            print("a frame without results", flush=True)
        elif args.json:
            print(as_json(batch), flush=True)
        else:
            for frame in batch.frames:
                print(describe(frame), flush=True)
        if args.count and seen["frames"] >= args.count:
            GLib.idle_add(loop.quit)
        return Gst.PadProbeReturn.OK

    def on_message(bus, message):
        if message.type == Gst.MessageType.ERROR:
            error, details = message.parse_error()
            print(f"error: {error.message} ({details})", file=sys.stderr)
            loop.quit()
        elif message.type == Gst.MessageType.EOS:
            loop.quit()

    def idle_check():
        if time.monotonic() - seen["last"] > args.idle:
            loop.quit()
            return False
        return True

    pipeline.get_by_name("sink").get_static_pad("sink").add_probe(Gst.PadProbeType.BUFFER, on_buffer)
    bus = pipeline.get_bus()
    bus.add_signal_watch()
    bus.connect("message", on_message)
    if pipeline.set_state(Gst.State.PLAYING) == Gst.StateChangeReturn.FAILURE:
        print("error: the pipeline did not start (is the configuration root found? see docs/configuration.md)",
              file=sys.stderr)
        return 1
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGINT, loop.quit)
    if args.idle:
        GLib.timeout_add(100, idle_check)
    if not args.count or seen["frames"] < args.count:
        loop.run()
    pipeline.set_state(Gst.State.NULL)
    return 0


if __name__ == "__main__":
    sys.exit(main())
