// libFuzzer around a target written in Python: the module tests.fuzz.targets.<name>, with <name> from the
// file name of this program. The interpreter is this program's own, the module under test is instrumented and
// reports to it, and so do the branches of the Python code that a target names.

#include <Python.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace {

constexpr std::size_t kBranches = 1U << 14U;

// libFuzzer takes these for counters like those of the instrumented code.
[[gnu::section("__libfuzzer_extra_counters"), gnu::used]] std::array<std::uint8_t, kBranches> branch_counters;

/// A callback of sys.monitoring: code, offset, destination.
PyObject* count_branch(PyObject*, PyObject* const* arguments, Py_ssize_t count) {
  if (count != 3) Py_RETURN_NONE;
  auto place = static_cast<std::size_t>(reinterpret_cast<PyCodeObject*>(arguments[0])->co_firstlineno);
  for (int i = 1; i < 3; ++i) place = place * 8191 + static_cast<std::size_t>(PyLong_AsLong(arguments[i]));
  std::uint8_t& counter = branch_counters.at(place % kBranches);
  if (counter < 255) ++counter;
  Py_RETURN_NONE;
}

PyMethodDef count_branch_method = {"count_branch",
                                   reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(count_branch)),
                                   METH_FASTCALL, nullptr};

PyObject* one_input = nullptr;

[[noreturn]] void give_up() {
  PyErr_Print();
  std::fflush(nullptr);
  std::abort();
}

PyObject* checked(PyObject* object) {
  if (object == nullptr) give_up();
  return object;
}

void start_interpreter(const char* program) {
  PyConfig config;
  PyConfig_InitPythonConfig(&config);
  config.install_signal_handlers = 0;
  config.parse_argv = 0;
  config.write_bytecode = 0;
  // The environment that the packages are installed in.
  PyConfig_SetBytesString(&config, &config.program_name, TESSALINE_FUZZ_PYTHON);
  PyConfig_SetBytesArgv(&config, 1, const_cast<char* const*>(&program));
  const PyStatus status = Py_InitializeFromConfig(&config);
  PyConfig_Clear(&config);
  if (PyStatus_Exception(status) != 0) Py_ExitStatusException(status);
}

void put_on_path(const char* folder) {
  PyObject* const text = checked(PyUnicode_FromString(folder));
  if (PyList_Insert(PySys_GetObject("path"), 0, text) != 0) give_up();
  Py_DECREF(text);
}

std::string target_of(const char* program) {
  constexpr std::string_view kPrefix = "fuzz_";
  return std::filesystem::path(program).filename().string().substr(kPrefix.size());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char*** arguments) {
  const char* const program = (*arguments)[0];
  start_interpreter(program);
  put_on_path(TESSALINE_FUZZ_ROOT);
  put_on_path(TESSALINE_FUZZ_PACKAGE);
  PyObject* const tracing = checked(PyImport_ImportModule("tests.fuzz.branches"));
  PyObject* const module =
      checked(PyImport_ImportModule(("tests.fuzz.targets." + target_of(program)).c_str()));
  PyObject* const counter = checked(PyCFunction_New(&count_branch_method, nullptr));
  Py_DECREF(checked(PyObject_CallMethod(tracing, "count", "OO", module, counter)));
  Py_DECREF(counter);
  Py_DECREF(tracing);
  one_input = checked(PyObject_GetAttrString(module, "one_input"));
  Py_DECREF(module);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PyObject* const bytes =
      checked(PyBytes_FromStringAndSize(reinterpret_cast<const char*>(data), static_cast<Py_ssize_t>(size)));
  Py_DECREF(checked(PyObject_CallOneArg(one_input, bytes)));
  Py_DECREF(bytes);
  return 0;
}
