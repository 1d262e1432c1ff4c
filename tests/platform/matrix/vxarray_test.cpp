#include "platform/matrix/vxarray.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/matrix/Array.h"

namespace {

std::string textAt(const vxArray* cell, std::size_t index) { return matrix::get_string(vxGetCell(cell, index)); }

// What is freed twice or not at all shows under the address sanitizer.
TEST(VxArray, SetCellTakesTheElementWhateverBecomesOfIt)
{
    const matrix::ArrayPtr cell(vxCreateCell(2, 1));
    vxSetCell(cell.get(), 0, vxCreateString("first"));
    vxSetCell(cell.get(), 0, vxCreateString("second"));
    EXPECT_EQ(textAt(cell.get(), 0), "second");

    vxSetCell(cell.get(), 2, vxCreateString("beyond the end"));
    vxSetCell(cell.get(), std::numeric_limits<std::size_t>::max(), vxCreateString("far beyond the end"));
    vxSetCell(nullptr, 0, vxCreateString("no array"));
    vxSetCell(matrix::createScalar(1.0).get(), 0, vxCreateString("no cell array"));
    EXPECT_EQ(textAt(cell.get(), 0), "second");
    EXPECT_EQ(vxGetCell(cell.get(), 1), nullptr);
    EXPECT_EQ(vxGetCell(cell.get(), 2), nullptr);

    vxSetCell(cell.get(), 0, vxGetCell(cell.get(), 0));
    EXPECT_EQ(textAt(cell.get(), 0), "second");
    vxSetCell(cell.get(), 0, cell.get());
    EXPECT_EQ(textAt(cell.get(), 0), "second");
    vxSetCell(cell.get(), 0, nullptr);
    EXPECT_EQ(vxGetCell(cell.get(), 0), nullptr);
}

TEST(VxArray, CellSizesAreKeptOrRefused)
{
    const matrix::ArrayPtr none(vxCreateCell(0, 1));
    EXPECT_EQ(none->dimensions(), (matrix::Dimensions{0, 1}));
    EXPECT_EQ(vxGetCell(none.get(), 0), nullptr);
    EXPECT_EQ(vxCreateCell(std::numeric_limits<std::size_t>::max(), 3), nullptr);
}

TEST(VxArray, NullIsNoArray)
{
    EXPECT_EQ(vxGetClassID(nullptr), vxUNKNOWN_CLASS);
    EXPECT_EQ(vxGetNumberOfDimensions(nullptr), 0u);
    EXPECT_EQ(vxGetDimensions(nullptr), nullptr);
    EXPECT_EQ(vxGetNumberOfElements(nullptr), 0u);
    EXPECT_EQ(vxGetCell(nullptr, 0), nullptr);
    EXPECT_EQ(vxArrayToUTF8(nullptr), nullptr);
    EXPECT_TRUE(matrix::ArrayPtr(vxCreateString(nullptr))->is_empty());
}

} // namespace
