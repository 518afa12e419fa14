#include "marlet/iot_value.h"

namespace com::quorixtech::iot {

const char *kindName(IotKind kind) {
    switch (kind) {
    case IotKind::none:
        return "none";
    case IotKind::iotv_int32:
        return "iotv_int32";
    case IotKind::iotv_uint32:
        return "iotv_uint32";
    case IotKind::iotv_int64:
        return "iotv_int64";
    case IotKind::iotv_float32:
        return "iotv_float32";
    case IotKind::iotv_string:
        return "iotv_string";
    case IotKind::iotv_byte_seq:
        return "iotv_byte_seq";
    case IotKind::iotv_nvp_seq:
        return "iotv_nvp_seq";
    }
    return "unknown";
}

IotKindError::IotKindError(IotKind expected, IotKind actual)
    : std::runtime_error(std::string("IOT_VALUE kind mismatch: expected ") + kindName(expected) + ", actual " +
                         kindName(actual)),
      expected_(expected), actual_(actual) {}

bool IOT_VALUE::operator==(const IOT_VALUE &other) const { return value_ == other.value_; }

} // namespace com::quorixtech::iot
