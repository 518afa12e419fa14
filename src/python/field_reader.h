#pragma once
// Typed, range-checked reads of a Python object's attributes, with errors
// that name the field by its path in the record.

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>

namespace qxpy {

class FieldReader {
  public:
    FieldReader(pybind11::handle object, std::string path) : object_(object), path_(std::move(path)) {}

    std::int32_t int32(const char *name) const;
    std::uint64_t uint64(const char *name) const;
    float float32(const char *name) const;
    std::string string(const char *name) const;
    bool boolean(const char *name) const;
    pybind11::object attr(const char *name) const;
    std::string where(const char *name) const { return path_ + "." + name; }

  private:
    pybind11::handle object_;
    std::string path_;
};

// The same checks for values that are not attributes (array cells, dict entries).
[[noreturn]] void outOfRange(const std::string &where, const std::string &value, const char *range);
std::int32_t int32Of(pybind11::handle value, const std::string &where);
std::int32_t checkedInt32(std::int64_t value, const std::string &where);
float checkedFloat32(double value, const std::string &where);
std::string stringOf(pybind11::handle value, const std::string &where);
std::string typeName(pybind11::handle object);

} // namespace qxpy
