#pragma once

#include "platform/matrix/Array.h"
#include "vendra/python/Object.h"

namespace vendra::python {

/// How deep containers may nest, in either direction.
inline constexpr std::size_t kMaxDepth = 64;
/// How many values a nest of containers may hold in all.
inline constexpr std::size_t kMaxValues = 2'000'000;
/// How many elements a numeric array may have. What repeats a few bytes by strides of zero claims any number.
inline constexpr std::size_t kMaxElements = 10'000'000;

/// The array form of a value. None is the 0-by-0 double; bool logical; int int64 or uint64; float double; str a char
/// row; bytes a uint8 row; list and tuple a cell row; dict with str keys a struct; what offers a buffer a numeric array
/// of its shape; other numbers by __index__ or __float__. ErrorSet: TypeError for what has no array form,
/// OverflowError, ValueError for cyclic and too deep containers. Needs the language's lock; may run the value's own
/// code.
matrix::ArrayPtr toArray(PyObject* value);

/// The value of an array; null is None. Inverse of toArray as far as arrays tell: a char array of several rows becomes
/// a list of rows, a numeric array an ndarray if numpy is loaded and else nested lists, a uint8 row bytes, a struct
/// array a list of dicts. ErrorSet on failure. Needs the language's lock.
Ref toObject(const vxArray* array);

/// The array form of what offers a buffer. ErrorSet as for toArray.
matrix::ArrayPtr bufferToArray(PyObject* value);

} // namespace vendra::python
