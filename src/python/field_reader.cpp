#include "field_reader.h"

#include <cfloat>
#include <cmath>
#include <limits>
#include <sstream>

namespace py = pybind11;

namespace qxpy {

std::string typeName(py::handle object) { return py::str(py::type::handle_of(object).attr("__qualname__")); }

void outOfRange(const std::string &where, const std::string &value, const char *range) {
    throw py::value_error(where + " = " + value + " is out of range (" + range + ")");
}

float checkedFloat32(double value, const std::string &where) {
    // NaN and infinities are kept as they are: a model may use them for "no score".
    if (std::isfinite(value) && std::fabs(value) > FLT_MAX) {
        std::ostringstream text;
        text << value;
        outOfRange(where, text.str(), "float32: magnitude up to 3.4e+38");
    }
    return static_cast<float>(value);
}

py::object FieldReader::attr(const char *name) const {
    if (!py::hasattr(object_, name)) {
        throw py::type_error(path_ + ": a " + typeName(object_) + " has no attribute '" + name + "'");
    }
    return object_.attr(name);
}

namespace {

constexpr const char *kInt32Range = "int32: -2147483648..2147483647";

// Any integer Python accepts as an index (int, bool, NumPy integers), never a float or a string.
py::int_ integerOf(py::handle value, const std::string &where) {
    PyObject *index = PyNumber_Index(value.ptr());
    if (index == nullptr) {
        PyErr_Clear();
        throw py::type_error(where + ": expected an int, got " + typeName(value));
    }
    return py::reinterpret_steal<py::int_>(index);
}

} // namespace

std::int32_t checkedInt32(std::int64_t value, const std::string &where) {
    if (value < std::numeric_limits<std::int32_t>::min() || value > std::numeric_limits<std::int32_t>::max()) {
        outOfRange(where, std::to_string(value), kInt32Range);
    }
    return static_cast<std::int32_t>(value);
}

std::int32_t int32Of(py::handle value, const std::string &where) {
    const py::int_ integer = integerOf(value, where);
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(integer.ptr(), &overflow);
    if (overflow != 0) outOfRange(where, std::string(py::str(integer.ptr())), kInt32Range);
    return checkedInt32(v, where);
}

std::string stringOf(py::handle value, const std::string &where) {
    if (!PyUnicode_Check(value.ptr())) throw py::type_error(where + ": expected a str, got " + typeName(value));
    return value.cast<std::string>();
}

std::int32_t FieldReader::int32(const char *name) const { return int32Of(attr(name), where(name)); }

std::uint64_t FieldReader::uint64(const char *name) const {
    const std::string at = where(name);
    const py::int_ value = integerOf(attr(name), at);
    const unsigned long long v = PyLong_AsUnsignedLongLong(value.ptr());
    if (PyErr_Occurred() != nullptr) {
        PyErr_Clear();
        outOfRange(at, std::string(py::str(value.ptr())), "uint64: 0..18446744073709551615");
    }
    return v;
}

float FieldReader::float32(const char *name) const {
    const std::string at = where(name);
    const py::object value = attr(name);
    if (!PyFloat_Check(value.ptr()) && !PyIndex_Check(value.ptr()) && !py::hasattr(value, "__float__")) {
        throw py::type_error(at + ": expected a float, got " + typeName(value));
    }
    const double v = PyFloat_AsDouble(value.ptr());
    if (PyErr_Occurred() != nullptr) throw py::error_already_set();
    return checkedFloat32(v, at);
}

std::string FieldReader::string(const char *name) const { return stringOf(attr(name), where(name)); }

bool FieldReader::boolean(const char *name) const {
    const py::object value = attr(name);
    // bool and NumPy's bool_; an int would hide a mixed-up field.
    if (!PyBool_Check(value.ptr()) && typeName(value) != "bool_") {
        throw py::type_error(where(name) + ": expected a bool, got " + typeName(value));
    }
    return value.cast<bool>();
}

} // namespace qxpy
