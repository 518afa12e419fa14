"""The batch record as plain Python objects.

These mirror GstQxBatchMeta field for field, with the names the tag groups use
on the bus (docs/tag-groups.md): a result's score is ``probability`` here as it
is on the wire. qxmeta.get() returns them and qxmeta.attach() reads them; any
object with the same attributes is accepted by attach().
"""

from dataclasses import dataclass, field
from typing import Dict, List, Optional

import numpy as np


@dataclass
class Classification:
    """One class score of a frame (an entry of ClassificationData)."""

    index: int = 0
    output: str = ""
    label: str = ""
    probability: float = 0.0


@dataclass
class DetectionBox:
    """One object found in a frame (an entry of DetectionBoxData); corners in pixels."""

    obj_id: int = 0
    obj_label: str = ""
    class_id: int = 0
    class_label: str = ""
    x1: float = 0.0
    y1: float = 0.0
    x2: float = 0.0
    y2: float = 0.0
    probability: float = 0.0
    meta: str = ""


@dataclass(eq=False)
class Segmentation:
    """A segmentation map: one class id and one probability per cell, rows first.

    ``class_ids`` (int32) and ``probabilities`` (float32) are arrays of the same
    shape (rows, width). ``labels`` names the classes by id; the record keeps a
    label per cell, and all cells of one class carry that class's label.
    Rows that arrive shorter than the widest row are padded with class id -1.
    """

    class_ids: np.ndarray
    probabilities: np.ndarray
    labels: Dict[int, str] = field(default_factory=dict)

    @property
    def shape(self):
        return self.class_ids.shape

    def __eq__(self, other):
        if not isinstance(other, Segmentation):
            return NotImplemented
        return (
            np.array_equal(self.class_ids, other.class_ids)
            and np.array_equal(self.probabilities, other.probabilities)
            and self.labels == other.labels
        )


@dataclass
class Device:
    """The capture device of a stream (DeviceInfoData)."""

    stream_id: str = ""
    mac_address: str = ""
    ip_address: str = ""
    port: int = 0
    uri: str = ""
    manufacturer: str = ""
    model: str = ""
    serial: str = ""
    fw_version: str = ""
    dev_id: str = ""
    status: str = ""
    kind: str = ""
    protocol: str = ""


@dataclass
class Frame:
    """One frame of the batch with its results.

    ``device_idx`` indexes Batch.devices (out of range: no device); ``timestamp``
    is the local time as digits YYYYMMDDhhmmssmmm.
    """

    stream_id: str = ""
    frame_id: int = 0
    timestamp: int = 0
    width: int = 0
    height: int = 0
    depth: int = 0
    channels: int = 0
    device_idx: int = 0
    is_compress: bool = False
    classifications: List[Classification] = field(default_factory=list)
    boxes: List[DetectionBox] = field(default_factory=list)
    segmentation: Optional[Segmentation] = None


@dataclass
class Batch:
    """The batch record of one buffer (GstQxBatchMeta).

    qxedgesink publishes the first frame, with the device its device_idx names.
    """

    devices: List[Device] = field(default_factory=list)
    frames: List[Frame] = field(default_factory=list)
