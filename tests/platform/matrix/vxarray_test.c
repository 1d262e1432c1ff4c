#include "platform/matrix/vxarray.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failures = 0;

static void check(int holds, const char* what)
{
    if (!holds) {
        fprintf(stderr, "failed: %s\n", what);
        ++failures;
    }
}

int main(void)
{
    vxArray* cell = vxCreateCell(2, 1);
    vxArray* string = vxCreateString("gr\xC3\xBC\xC3\x9F");
    char* text;

    check(cell != NULL && string != NULL, "arrays are made");
    check(vxGetClassID(cell) == vxCELL_CLASS && vxGetClassID(string) == vxCHAR_CLASS, "classes");
    check(vxGetNumberOfDimensions(cell) == 2 && vxGetDimensions(cell)[0] == 2 && vxGetDimensions(cell)[1] == 1,
          "sizes of the cell array");
    check(vxGetNumberOfElements(string) == 4, "one element per UTF-16 unit");

    vxSetCell(cell, 0, string);
    vxSetCell(cell, 1, vxCreateDoubleScalar(2.5));
    check(vxGetCell(cell, 0) == string, "the cell holds the string");
    check(vxGetClassID(vxGetCell(cell, 1)) == vxDOUBLE_CLASS, "the cell holds the number");
    check(vxGetCell(cell, 2) == NULL, "nothing beyond the end");

    text = vxArrayToUTF8(vxGetCell(cell, 0));
    check(text != NULL && strcmp(text, "gr\xC3\xBC\xC3\x9F") == 0, "the text comes back");
    free(text);
    check(vxArrayToUTF8(cell) == NULL, "a cell array has no text");

    vxDestroyArray(cell);
    vxDestroyArray(NULL);
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
