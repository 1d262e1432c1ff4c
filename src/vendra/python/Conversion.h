#pragma once

#include <initializer_list>

#include "platform/matrix/Array.h"
#include "vendra/python/Object.h"

namespace vendra::python {

/// How deep containers may nest, in either direction.
inline constexpr std::size_t kMaxDepth = 64;
/// How many values a nest of containers may hold in all.
inline constexpr std::size_t kMaxValues = 2'000'000;
/// How many elements numeric arrays may have in all. What repeats a few bytes by strides of zero claims any number.
inline constexpr std::size_t kMaxElements = 10'000'000;
/// How many characters texts may have in all.
inline constexpr std::size_t kMaxCharacters = 256u << 20;

/// The array form of a value. None is the 0-by-0 double; bool logical; int int64, uint64 or typed; float double; str a
/// char row; bytes a uint8 row; list and tuple a cell row; dict with str keys a struct, with others typed; what
/// support/forms.py knows typed, or an array of texts and objects; what else offers a buffer a numeric array of its
/// shape; others by __index__. A subclass is told as its base. A value is told exactly or not at all. ErrorSet:
/// TypeError for what has no array form, ValueError for what is cyclic, too deep, too large or not exact. Needs the
/// language's lock; of a script's code only an __index__ is run.
matrix::ArrayPtr toArray(PyObject* value);

/// The value of an array; null is None. Inverse of toArray as far as arrays tell: a char array of several rows becomes
/// a list of rows, a numeric array an ndarray if numpy is loaded and else nested lists, a uint8 row bytes, a struct
/// array a list of dicts. ErrorSet on failure: ValueError for a typed value of a kind that is unknown, or that is told
/// wrongly. Needs the language's lock.
Ref toObject(const vxArray* array);

/// The array form of what offers a buffer. ErrorSet as for toArray.
matrix::ArrayPtr bufferToArray(PyObject* value);

/// Names the part of conversions that is written in the language: the module of support/, kept until clearForms.
void setForms(PyObject* support);
void clearForms() noexcept;
/// What a function of that part answers. ErrorSet, also while there is none.
Ref callForms(const char* name, std::initializer_list<PyObject*> arguments);

} // namespace vendra::python
