#pragma once

namespace tessaline::auth::http {

/// EMFILE or ENFILE if two more descriptors cannot be opened now, else 0. Libraries that briefly need one or
/// two do not report why they failed.
int descriptor_shortage() noexcept;

}  // namespace tessaline::auth::http
