"""Read and attach the batch metadata (GstQxBatchMeta) of qxedge from Python.

    from qxmeta import get, attach, Batch, Frame, DetectionBox

get(buffer) returns the record of a Gst.Buffer as a Batch, or None when it
carries none. attach(target, batch) adds the record, or replaces the one
there; target is a writable Gst.Buffer or, inside a pad probe, the probe's
Gst.PadProbeInfo. See docs/python.md.
"""

from .records import Batch, Classification, DetectionBox, Device, Frame, Segmentation
from ._native import attach, get

__all__ = ["get", "attach", "Batch", "Frame", "Device", "Classification", "DetectionBox", "Segmentation"]
