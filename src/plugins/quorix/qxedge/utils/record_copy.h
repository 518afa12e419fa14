#pragma once
// Field-by-field copies between the record types that describe the same box or
// device: the separate and combined bus records and the pipeline metadata.
// Ids are signed in some of them and unsigned in others; the copies convert
// to the target's type. Probability is named "prob" in the pipeline metadata
// and "probability" on the bus, so the callers set it.

namespace TOLVIXO {

template <typename From, typename To> void copyBoxFields(const From &from, To &to) {
    to.obj_id = static_cast<decltype(to.obj_id)>(from.obj_id);
    to.obj_label = from.obj_label;
    to.class_id = static_cast<decltype(to.class_id)>(from.class_id);
    to.class_label = from.class_label;
    to.x1 = from.x1;
    to.y1 = from.y1;
    to.x2 = from.x2;
    to.y2 = from.y2;
    to.meta = from.meta;
}

template <typename From, typename To> void copyDeviceFields(const From &from, To &to) {
    to.stream_id = from.stream_id;
    to.mac_address = from.mac_address;
    to.ip_address = from.ip_address;
    to.port = from.port;
    to.uri = from.uri;
    to.manufacturer = from.manufacturer;
    to.model = from.model;
    to.serial = from.serial;
    to.fw_version = from.fw_version;
    to.dev_id = from.dev_id;
    to.status = from.status;
    to.kind = from.kind;
    to.protocol = from.protocol;
}

} // namespace TOLVIXO
