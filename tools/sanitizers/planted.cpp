// Faults for the sanitizers to find, so that a run which finds none in the component means something.
#include <climits>
#include <thread>

extern "C" {

int use_after_free() {
  int* const value = new int(1);
  delete value;
  return *static_cast<volatile int*>(value);
}

int overflow() {
  volatile int most = INT_MAX;
  return most + 1;
}

int race() {
  int shared = 0;
  const auto count = [&shared] {
    for (int i = 0; i < 1000; ++i) *static_cast<volatile int*>(&shared) = i;
  };
  std::thread one(count);
  std::thread other(count);
  one.join();
  other.join();
  return shared;
}
}
