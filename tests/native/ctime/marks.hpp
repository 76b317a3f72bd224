#pragma once

#include <cstddef>

/// What the memory checker is told. Plain C functions, so that a Python program reaches them as well.
extern "C" {

/// `size` bytes hold a secret: from here on a branch or an address that depends on them is an error.
void ctime_mark_secret(const void* data, std::size_t size);

/// `size` bytes may be known to everyone.
void ctime_mark_public(const void* data, std::size_t size);

/// How many of the `size` bytes depend on a secret.
std::size_t ctime_count_secret(const void* data, std::size_t size);

/// Errors reported by now, without those that the list of public places accounts for.
unsigned ctime_reports();

/// Whether the memory checker is there at all.
bool ctime_is_watched();
}
