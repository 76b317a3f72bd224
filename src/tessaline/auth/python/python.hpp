#pragma once

// All that the layers above `python/` need of Python.

#include "tessaline/auth/python/boundary.hpp"
#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/event.hpp"
#include "tessaline/auth/python/gil.hpp"
#include "tessaline/auth/python/globals.hpp"
#include "tessaline/auth/python/import.hpp"
#include "tessaline/auth/python/line_of_execution.hpp"
#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/note.hpp"
#include "tessaline/auth/python/parameters.hpp"
#include "tessaline/auth/python/plain_lock.hpp"
#include "tessaline/auth/python/ref.hpp"
#include "tessaline/auth/python/scoped_lock.hpp"
#include "tessaline/auth/python/seen_type.hpp"
#include "tessaline/auth/python/stack.hpp"
#include "tessaline/auth/python/until_done.hpp"
#include "tessaline/auth/python/value.hpp"
#include "tessaline/auth/python/wall_clock.hpp"
