// libFuzzer for a target written in Python: the module tests.fuzz.targets.<name>, with <name> from the file
// name of this program. The interpreter is embedded; the module under test is instrumented and reports to it,
// and so do the branches of the Python code that a target names.

#include <Python.h>

#include <algorithm>
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

// For libFuzzer these are counters like those of the instrumented code.
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

/// The lines of a target's module for mutations; empty if its inputs do not consist of lines.
std::vector<std::string> vocabulary;

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
  // The environment in which the packages are installed.
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

void read_vocabulary(PyObject* module) {
  if (PyObject_HasAttrString(module, "VOCABULARY") == 0) return;
  PyObject* const lines = checked(PyObject_GetAttrString(module, "VOCABULARY"));
  for (Py_ssize_t i = 0; i < PyTuple_Size(lines); ++i) {
    vocabulary.emplace_back(PyUnicode_AsUTF8(PyTuple_GetItem(lines, i)));
  }
  Py_DECREF(lines);
}

std::vector<std::string> split(std::string_view text) {
  std::vector<std::string> lines;
  for (;;) {
    const auto end = text.find('\n');
    lines.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return lines;
    text.remove_prefix(end + 1);
  }
}

void mutate(std::vector<std::string>& lines, std::minstd_rand& random) {
  const auto some = [&](std::size_t count) {
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
  };
  const auto place = lines.begin() + static_cast<std::ptrdiff_t>(some(lines.size()));
  switch (some(5)) {
    case 0:
      if (lines.size() > 1) lines.erase(place);
      break;
    case 1:
      std::iter_swap(place, lines.begin() + static_cast<std::ptrdiff_t>(some(lines.size())));
      break;
    case 2:
      *place = vocabulary[some(vocabulary.size())];
      break;
    default:
      lines.insert(place + 1, vocabulary[some(vocabulary.size())]);
  }
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
  read_vocabulary(module);
  Py_DECREF(module);
  return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                               unsigned seed) {
  std::minstd_rand random(seed);
  if (vocabulary.empty() || random() % 3 == 0) return LLVMFuzzerMutate(data, size, most);
  auto lines = split({reinterpret_cast<const char*>(data), size});
  for (auto times = 1 + random() % 3; times > 0; --times) mutate(lines, random);
  std::string text;
  for (const auto& line : lines) text += line + '\n';
  text.pop_back();
  if (text.size() > most) return LLVMFuzzerMutate(data, size, most);
  std::copy(text.begin(), text.end(), reinterpret_cast<char*>(data));
  return text.size();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PyObject* const bytes =
      checked(PyBytes_FromStringAndSize(reinterpret_cast<const char*>(data), static_cast<Py_ssize_t>(size)));
  Py_DECREF(checked(PyObject_CallOneArg(one_input, bytes)));
  Py_DECREF(bytes);
  return 0;
}
