#pragma once

namespace tessaline::auth::http {

/// Whether another descriptor could not be had now: EMFILE or ENFILE; 0 where it could. Libraries that need
/// one for a moment do not tell why they failed.
int descriptor_shortage() noexcept;

}  // namespace tessaline::auth::http
