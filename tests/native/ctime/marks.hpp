#pragma once

#include <cstddef>

/// Requests to the memory checker. Plain C functions, so that a Python program can call them too.
extern "C" {

/// `size` bytes are a secret: from here on a branch or an address that depends on them is an error.
void ctime_mark_secret(const void* data, std::size_t size);

/// `size` bytes are public.
void ctime_mark_public(const void* data, std::size_t size);

/// How many of the `size` bytes depend on a secret.
std::size_t ctime_count_secret(const void* data, std::size_t size);

/// Errors reported so far, without those of the list of public places.
unsigned ctime_reports();

/// Whether the memory checker is running.
bool ctime_is_watched();
}
