#include "segmentation_arrays.h"

#include "field_reader.h"

#include <pybind11/numpy.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <unordered_map>

namespace py = pybind11;

namespace qxpy {

namespace {

std::string shapeText(const py::array &a) {
    std::string text = "(";
    for (py::ssize_t d = 0; d < a.ndim(); ++d)
        text += (d ? ", " : "") + std::to_string(a.shape(d));
    return text + (a.ndim() == 1 ? ",)" : ")");
}

// The array behind `value` as T, after checking that its elements are of a kind that converts without loss of meaning.
template <typename T>
py::array_t<T, py::array::c_style> matrixOf(const py::object &value, const char *kinds, const std::string &where,
                                            const char *expected) {
    py::array array = py::module_::import("numpy").attr("asarray")(value);
    if (std::string(kinds).find(array.dtype().kind()) == std::string::npos) {
        throw py::type_error(where + ": expected an array of " + expected + ", got dtype " +
                             std::string(py::str(array.dtype())));
    }
    if (array.ndim() != 2)
        throw py::value_error(where + ": expected a 2-D array (rows, width), got shape " + shapeText(array));
    auto converted = py::array_t<T, py::array::c_style | py::array::forcecast>::ensure(array);
    if (!converted) throw py::type_error(where + ": cannot read dtype " + std::string(py::str(array.dtype())));
    return converted;
}

std::unordered_map<std::int32_t, std::string> labelsOf(const FieldReader &reader) {
    std::unordered_map<std::int32_t, std::string> labels;
    const py::object given = reader.attr("labels");
    if (given.is_none()) return labels;
    if (!py::isinstance<py::dict>(given)) {
        throw py::type_error(reader.where("labels") + ": expected a dict {class id: label}, got " + typeName(given));
    }
    for (auto item : py::reinterpret_borrow<py::dict>(given)) {
        const std::string at = reader.where("labels") + "[" + std::string(py::repr(item.first)) + "]";
        labels[int32Of(item.first, at)] = stringOf(item.second, at);
    }
    return labels;
}

} // namespace

SegmentRows segmentRows(py::handle segmentation, const std::string &where) {
    const FieldReader reader(segmentation, where);
    const auto ids = matrixOf<std::int64_t>(reader.attr("class_ids"), "iub", reader.where("class_ids"), "integers");
    const auto probs = matrixOf<double>(reader.attr("probabilities"), "fiub", reader.where("probabilities"), "numbers");
    if (ids.shape(0) != probs.shape(0) || ids.shape(1) != probs.shape(1)) {
        throw py::value_error(where + ": class_ids has shape " + shapeText(ids) + " but probabilities " +
                              shapeText(probs));
    }
    const auto labels = labelsOf(reader);
    const auto idAt = ids.unchecked<2>();
    const auto probAt = probs.unchecked<2>();
    auto cell = [&](const char *name, py::ssize_t r, py::ssize_t c) {
        return reader.where(name) + "[" + std::to_string(r) + ", " + std::to_string(c) + "]";
    };
    static const std::string unnamed;
    const std::string *label = &unnamed;
    std::int64_t labelled = std::numeric_limits<std::int64_t>::max(); // the class `label` belongs to
    SegmentRows rows(static_cast<std::size_t>(ids.shape(0)));
    for (py::ssize_t r = 0; r < ids.shape(0); ++r) {
        auto &row = rows[static_cast<std::size_t>(r)];
        row.resize(static_cast<std::size_t>(ids.shape(1)));
        for (py::ssize_t c = 0; c < ids.shape(1); ++c) {
            const std::int64_t id = idAt(r, c);
            const double prob = probAt(r, c);
            auto &out = row[static_cast<std::size_t>(c)];
            out.class_id = id >= INT32_MIN && id <= INT32_MAX ? static_cast<std::int32_t>(id)
                                                              : checkedInt32(id, cell("class_ids", r, c));
            out.prob = std::fabs(prob) <= FLT_MAX || !std::isfinite(prob)
                           ? static_cast<float>(prob)
                           : checkedFloat32(prob, cell("probabilities", r, c));
            // Neighbouring cells mostly share their class: look the label up only when the class changes.
            if (id != labelled) {
                const auto found = labels.find(out.class_id);
                label = found == labels.end() ? &unnamed : &found->second;
                labelled = id;
            }
            out.label = *label;
        }
    }
    return rows;
}

py::object segmentationOf(const SegmentRows &rows, py::handle make) {
    std::size_t width = 0;
    for (const auto &row : rows)
        width = std::max(width, row.size());
    const auto height = static_cast<py::ssize_t>(rows.size());
    py::array_t<std::int32_t> ids({height, static_cast<py::ssize_t>(width)});
    py::array_t<float> probs({height, static_cast<py::ssize_t>(width)});
    auto idAt = ids.mutable_unchecked<2>();
    auto probAt = probs.mutable_unchecked<2>();
    // The first label seen names its class.
    std::unordered_map<std::int32_t, const std::string *> labels;
    for (py::ssize_t r = 0; r < height; ++r) {
        const auto &row = rows[static_cast<std::size_t>(r)];
        for (std::size_t c = 0; c < width; ++c) {
            const bool inRow = c < row.size();
            idAt(r, c) = inRow ? row[c].class_id : -1;
            probAt(r, c) = inRow ? row[c].prob : 0.0f;
            if (inRow && !row[c].label.empty() &&
                (c == 0 || row[c].class_id != row[c - 1].class_id || row[c - 1].label.empty())) {
                labels.try_emplace(row[c].class_id, &row[c].label);
            }
        }
    }
    py::dict names;
    for (const auto &[id, label] : labels)
        names[py::int_(id)] = py::str(*label);
    return make(py::arg("class_ids") = ids, py::arg("probabilities") = probs, py::arg("labels") = names);
}

} // namespace qxpy
