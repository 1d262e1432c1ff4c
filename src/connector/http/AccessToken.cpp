#include "connector/http/AccessToken.h"

#include "connector/common/Secret.h"

namespace connector::http {

AccessToken::AccessToken() : text_(common::randomHex(32)), digest_(common::sha256(text_)) {}

const AccessToken& AccessToken::ofProcess()
{
    static const AccessToken token;
    return token;
}

bool AccessToken::matches(std::string_view candidate) const
{
    return common::equalDigests(common::sha256(candidate), digest_);
}

} // namespace connector::http
