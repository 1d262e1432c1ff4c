/* The host's array as C sees it. Compiles as C11 and as C++.
 *
 * A `vxArray` is one n-dimensional array of one class, with at least two dimensions, elements in column-major order.
 * Threads: an array may be read by many threads; writing needs the array to oneself.
 */
#ifndef VENDRA_PLATFORM_MATRIX_VXARRAY_H
#define VENDRA_PLATFORM_MATRIX_VXARRAY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vxArray_tag vxArray;

typedef enum vxClassID
{
    vxUNKNOWN_CLASS = 0,
    vxCELL_CLASS,
    vxSTRUCT_CLASS,
    vxLOGICAL_CLASS,
    vxCHAR_CLASS,
    vxDOUBLE_CLASS,
    vxSINGLE_CLASS,
    vxINT8_CLASS,
    vxUINT8_CLASS,
    vxINT16_CLASS,
    vxUINT16_CLASS,
    vxINT32_CLASS,
    vxUINT32_CLASS,
    vxINT64_CLASS,
    vxUINT64_CLASS,
    vxTYPED_CLASS /* one value of a kind that only the host's language knows */
} vxClassID;

#define VX_API __attribute__((visibility("default")))

/* A row of UTF-16 units from UTF-8 text; "" makes a 0-by-0 array. NULL when memory is out. The caller owns it. */
VX_API vxArray* vxCreateString(const char* utf8);

/* A cell array of empty elements; NULL when memory is out or the size overflows. The caller owns it. */
VX_API vxArray* vxCreateCell(size_t rows, size_t columns);

/* A 1-by-1 double. NULL when memory is out. The caller owns it. */
VX_API vxArray* vxCreateDoubleScalar(double value);

/* Frees an array and all that it holds; NULL is allowed. */
VX_API void vxDestroyArray(vxArray* array);

/* For NULL: vxUNKNOWN_CLASS, no dimensions, no elements. */
VX_API vxClassID vxGetClassID(const vxArray* array);
VX_API size_t vxGetNumberOfDimensions(const vxArray* array);
/* The sizes, one per dimension; NULL for NULL, valid as long as the array keeps its shape. */
VX_API const size_t* vxGetDimensions(const vxArray* array);
VX_API size_t vxGetNumberOfElements(const vxArray* array);

/* Element `index` (from 0) of a cell array, still owned by it; NULL for an empty element, a class that is not cell or
 * an index beyond the end. */
VX_API vxArray* vxGetCell(const vxArray* cell, size_t index);

/* Puts `element` at `index` of a cell array, which owns it from then on, whatever stood there is freed. Where the array
 * is not a cell or the index is beyond its end, nothing is stored and `element` is freed. A null `element` empties the
 * place; putting the cell into itself, or what stands there already, changes nothing. */
VX_API void vxSetCell(vxArray* cell, size_t index, vxArray* element);

/* The text of a char array as UTF-8 and NUL-terminated, in memory the caller frees with free(); NULL for other classes
 * and when memory is out. A text that holds NUL ends there for C. */
VX_API char* vxArrayToUTF8(const vxArray* array);

#ifdef __cplusplus
}
#endif

#endif
