#pragma once

namespace tessaline::auth::http {

/// Whether two more descriptors could not be had now: EMFILE or ENFILE; 0 where they could. Libraries that
/// need some for a moment, two at most, do not tell why they failed.
int descriptor_shortage() noexcept;

}  // namespace tessaline::auth::http
