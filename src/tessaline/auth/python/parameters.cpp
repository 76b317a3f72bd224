#include "tessaline/auth/python/parameters.hpp"

#include <algorithm>
#include <string>

#include "tessaline/auth/python/error.hpp"

namespace tessaline::auth::python {

Bound Parameters::bind(PyObject* const* arguments, Py_ssize_t positional_count,
                       PyObject* keyword_names) const {
  Bound bound{};
  const auto given = static_cast<std::size_t>(positional_count);
  bind_positional(bound, arguments, std::min(given, positional_));
  if (keyword_names != nullptr) {
    for (Py_ssize_t index = 0; index < PyTuple_GET_SIZE(keyword_names); ++index) {
      bind_keyword(bound, PyTuple_GET_ITEM(keyword_names, index), arguments[positional_count + index]);
    }
  }
  if (given > positional_) raise_too_many(bound, given);
  require_all(bound);
  return bound;
}

Bound Parameters::bind(PyObject* arguments, PyObject* keywords) const {
  Bound bound{};
  const auto given = static_cast<std::size_t>(PyTuple_GET_SIZE(arguments));
  for (std::size_t index = 0; index < std::min(given, positional_); ++index) {
    bound[index] = PyTuple_GET_ITEM(arguments, static_cast<Py_ssize_t>(index));
  }
  PyObject* keyword = nullptr;
  PyObject* value = nullptr;
  for (Py_ssize_t place = 0; keywords != nullptr && PyDict_Next(keywords, &place, &keyword, &value) != 0;) {
    bind_keyword(bound, keyword, value);
  }
  if (given > positional_) raise_too_many(bound, given);
  require_all(bound);
  return bound;
}

void Parameters::bind_positional(Bound& bound, PyObject* const* arguments, std::size_t given) const {
  std::copy_n(arguments, given, bound.begin());
}

void Parameters::bind_keyword(Bound& bound, PyObject* keyword, PyObject* value) const {
  if (!PyUnicode_Check(keyword)) {
    PyErr_Format(PyExc_TypeError, "%s() keywords must be strings", name_);
    throw Error::fetch();
  }
  for (std::size_t index = 0; index < count_; ++index) {
    if (PyUnicode_CompareWithASCIIString(keyword, parameters_[index]) != 0) continue;
    if (bound[index] != nullptr) {
      PyErr_Format(PyExc_TypeError, "%s() got multiple values for argument '%s'", name_, parameters_[index]);
      throw Error::fetch();
    }
    bound[index] = value;
    return;
  }
  PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", name_, keyword);
  throw Error::fetch();
}

void Parameters::require_all(const Bound& bound) const {
  std::array<const char*, kMostParameters> missing{};
  std::size_t count = 0;
  for (std::size_t index = 0; index < required_; ++index) {
    if (bound[index] == nullptr) missing[count++] = parameters_[index];
  }
  if (count > 0) raise_missing({missing.data(), count});
}

void Parameters::raise_too_many(const Bound& bound, std::size_t given) const {
  const std::size_t most = positional_ + implicit_;
  const std::size_t least = required_ + implicit_;
  given += implicit_;
  const auto keyword_only = std::count_if(bound.begin() + static_cast<std::ptrdiff_t>(positional_),
                                          bound.end(), [](PyObject* value) { return value != nullptr; });
  std::string takes;
  if (least != most) takes.append("from ").append(std::to_string(least)).append(" to ");
  takes.append(std::to_string(most))
      .append(" positional argument")
      .append(most == 1 && least == most ? "" : "s");
  std::string were = std::to_string(given);
  if (keyword_only > 0) {
    were.append(" positional argument").append(given == 1 ? "" : "s").append(" (and ");
    were.append(std::to_string(keyword_only))
        .append(" keyword-only argument")
        .append(keyword_only == 1 ? ")" : "s)");
  }
  were.append(given == 1 && keyword_only == 0 ? " was" : " were");
  PyErr_Format(PyExc_TypeError, "%s() takes %s but %s given", name_, takes.c_str(), were.c_str());
  throw Error::fetch();
}

void Parameters::raise_missing(std::span<const char* const> missing) const {
  std::string names;
  for (std::size_t index = 0; index < missing.size(); ++index) {
    if (index > 0) names += index + 1 < missing.size() ? ", " : missing.size() == 2 ? " and " : ", and ";
    names.append("'").append(missing[index]).append("'");
  }
  PyErr_Format(PyExc_TypeError, "%s() missing %zu required positional argument%s: %s", name_, missing.size(),
               missing.size() == 1 ? "" : "s", names.c_str());
  throw Error::fetch();
}

}  // namespace tessaline::auth::python
