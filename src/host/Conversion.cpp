#include "host/Conversion.h"

#include <iostream>
#include <stdexcept>

#include "platform/fl/i18n.h"

namespace host {

std::string readName(const vxArray* argument)
{
    if (argument && argument->is_char())
        return matrix::get_string(argument);
    std::cerr << "Name must be a string." << std::endl;
    return {};
}

std::string readString(const vxArray* argument) { return matrix::get_string(argument); }

std::vector<std::string> readStringList(const vxArray* argument)
{
    const fl::i18n::codecvt_ustring_to_string toUtf8("UTF-8", true);
    const auto count = argument ? argument->get_number_of_elements() : 0;
    std::vector<std::string> texts;
    if (count > texts.max_size())
        throw std::length_error("vector<T> too long");
    texts.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        texts.push_back(matrix::get_string(vxGetCell(argument, i), toUtf8));
    return texts;
}

vxArray* toHost(std::string_view text) { return matrix::to_vendra(matrix::create(text.data(), text.size())); }

} // namespace host
