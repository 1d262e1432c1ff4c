#include "platform/us/LDAPFilter.h"
#include "Fixture.h"

namespace us_test {

TEST(UsLDAPFilter, MatchesByTypeAndOperator)
{
    const us::ServiceProperties properties{{"Name", "report.final.txt"},
                                           {"abc", 5},
                                           {"big", 18446744073709551615ull},
                                           {"small", -3L},
                                           {"ratio", 2.5},
                                           {"half", 0.5f},
                                           {"on", true},
                                           {"letter", 'x'},
                                           {"odd", "a*b(c)"},
                                           {"texts", Texts{"one", "2"}},
                                           {"empty", us::Any()},
                                           {"list", std::vector<us::Any>{7, std::string("seven")}},
                                           {"blank", " a b "},
                                           {"void", ""},
                                           {"abc!", "x"}};
    const std::vector<std::pair<const char*, bool>> table{
        {"(name=report.final.txt)", true},
        {"(NAME=report.final.txt)", true},
        {"(name=Report.final.txt)", false},    // values keep their case
        {" ( & ( name = report* ) ) ", false}, // blanks belong to the value
        {" ( & ( name =report*) (abc=5) ) ", true},
        {"(name=rep*.fin*txt)", true},
        {"(name=*final*)", true},
        {"(name=*txt.txt)", false}, // prefix and suffix must not overlap
        {"(name=report.final.txt*txt)", false},
        {"(name=*a*a*)", false},
        {"(name=*)", true},
        {"(nam=*)", false},
        {"(empty=*)", true},
        {"(empty=)", false},
        {"(void=)", true},
        {"(name~=REPORT . final.TXT)", true},
        {"(blank=a b)", false},
        {"(blank= a b )", true},
        {"(blank~=AB)", true},
        {"(name>=report)", true},
        {"(name<=report)", false},
        {"(odd=a\\*b\\(c\\))", true},
        {"(odd=a\\*)", false},
        {"(abc=5)", true},
        {"(abc=5x)", false},
        {"(abc= 5)", false},
        {"(abc=5*)", false},
        {"(ab=5)", false}, // whole names only
        {"(abc>=5)", true},
        {"(abc>=6)", false},
        {"(abc<=4)", false},
        {"(abc<=99999999999999999999999)", false}, // no number that we know
        {"(big>=18446744073709551615)", true},
        {"(big<=-1)", false},
        {"(small<=18446744073709551615)", true},
        {"(small=-3)", true},
        {"(ratio>=2.5)", true},
        {"(ratio=2.50)", true},
        {"(ratio=2.5x)", false},
        {"(half<=0.4)", false},
        {"(on=true)", true},
        {"(on=TRUE)", true},
        {"(on=t)", false},
        {"(on>=true)", false},
        {"(letter=x)", true},
        {"(texts=one)", true},
        {"(texts=2)", true},
        {"(texts=on)", false},
        {"(list=7)", true},
        {"(list=sev*)", true},
        {"(!(list=8))", true},
        {"(missing>=0)", false},
        {"(!(missing>=0))", true},
        {"(abc!=x)", true}, // an attribute whose name ends so
        {"(|(abc=1)(abc=5))", true},
        {"(&(abc=1)(abc=5))", false},
        {"(!(&(abc=5)(!(on=false))))", false},
    };
    for (const auto& [text, expected] : table)
        EXPECT_EQ(us::LDAPFilter(text).Match(properties), expected) << text;
    EXPECT_TRUE(us::LDAPFilter("(Name=*)").MatchCase(properties));
    EXPECT_FALSE(us::LDAPFilter("(name=*)").MatchCase(properties));
    EXPECT_FALSE(us::LDAPFilter().Match(properties));
    EXPECT_FALSE(us::LDAPFilter("(a=*)").Match(us::ServiceReferenceU()));
}

TEST(UsLDAPFilter, ErrorsNameTheFaultAndTheRest)
{
    const std::vector<std::pair<std::string, std::string>> table{
        {"", "Null query at \"\" of \"\""},
        {"abc=5", "Malformed query at \"abc=5\" of \"abc=5\""},
        {"(=5)", "Malformed query at \"=5)\" of \"(=5)\""},
        {"()", "Malformed query at \")\" of \"()\""},
        {"(&)", "Malformed query at \")\" of \"(&)\""},
        {"(!(a=1)(b=2))", "Malformed query at \")\" of \"(!(a=1)(b=2))\""},
        {"(a=(b))", "Malformed query at \"(b))\" of \"(a=(b))\""},
        {"(a>5)", "Undefined operator at \">5)\" of \"(a>5)\""},
        {"(a)", "Undefined operator at \")\" of \"(a)\""},
        {"(a=1", "Unexpected end of query at \"\" of \"(a=1\""},
        {"(a=1\\", "Unexpected end of query at \"\" of \"(a=1\\\""},
        {"(&(a=1)", "Unexpected end of query at \"\" of \"(&(a=1)\""},
        {"(a", "Unexpected end of query at \"\" of \"(a\""},
        {"(a=1))", "Trailing garbage at \")\" of \"(a=1))\""},
        {"   ", "Unexpected end of query at \"\" of \"   \""}};
    for (const auto& [text, error] : table)
        EXPECT_EQ(textOf<std::invalid_argument>([&, &query = text] { us::LDAPFilter filter(query); }), error);
    std::string deep;
    for (int i = 0; i < 100000; ++i)
        deep += "(!";
    EXPECT_THROW(us::LDAPFilter filter(deep), std::invalid_argument) << "must not exhaust the stack";
}

} // namespace us_test
