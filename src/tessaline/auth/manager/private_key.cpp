#include <memory>
#include <span>
#include <utility>

#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/validation.hpp"

namespace tessaline::auth {

Ref AuthManager::private_key() const {
  value_of(Field::kState);  // raises if the constructor has not run
  if (key == nullptr) return Ref::none();
  Ref made = python::checked(PyUnicode_New(static_cast<Py_ssize_t>(wallet::kKeyHexDigits), 'f'));
  key->write_hex(std::span<char, wallet::kKeyHexDigits>(static_cast<char*>(PyUnicode_DATA(made.get())),
                                                        wallet::kKeyHexDigits));
  return made;
}

void AuthManager::set_private_key(PyObject* value) {
  if (value == Py_None) return wipe_key();
  auto parsed = std::make_unique<wallet::WalletKey>(read_private_key(value));
  wipe_key();
  key = parsed.release();
}

void AuthManager::wipe_key() noexcept {
  delete std::exchange(key, nullptr);
}

}  // namespace tessaline::auth
