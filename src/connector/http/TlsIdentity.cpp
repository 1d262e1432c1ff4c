#include "connector/http/TlsIdentity.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include "connector/common/FileDescriptor.h"

namespace connector::http {

namespace {

namespace fs = std::filesystem;

constexpr long kDays = 397; ///< what browsers accept of a certificate
constexpr int kRenewDays = 30;
constexpr long kDaySeconds = 86'400;

template <auto Free>
struct Freed
{
    template <class T>
    void operator()(T* object) const
    {
        Free(object);
    }
};
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;
using Bio = std::unique_ptr<BIO, Freed<BIO_free_all>>;
using Extension = std::unique_ptr<X509_EXTENSION, Freed<X509_EXTENSION_free>>;

[[noreturn]] void fail(const fs::path& file, const std::string& problem)
{
    throw std::runtime_error("TLS: " + file.string() + " " + problem);
}

[[noreturn]] void failWithErrno(const fs::path& file, const std::string& problem)
{
    const int code = errno;
    fail(file, problem + ": " + std::generic_category().message(code));
}

void require(bool done, const char* what)
{
    if (!done)
        throw std::runtime_error(std::string("TLS: the system's library cannot make ") + what);
}

bool isNumeric(const std::string& name)
{
    std::array<unsigned char, 16> address{};
    return inet_pton(AF_INET, name.c_str(), address.data()) == 1 ||
           inet_pton(AF_INET6, name.c_str(), address.data()) == 1;
}

/// Host names as http.allowedHosts has them, without port and brackets; what no certificate can carry is left out.
std::vector<std::string> certifiedNames(const std::vector<std::string>& hosts)
{
    std::vector<std::string> names{"localhost", "127.0.0.1", "::1"};
    for (std::string host : hosts) {
        if (!host.empty() && host.front() == '[')
            host = host.substr(1, host.find(']') - 1);
        else if (const auto colon = host.find(':'); colon != std::string::npos)
            host.resize(colon);
        if (!host.empty() && host.find_first_of(",:\\\"' ") == std::string::npos)
            names.push_back(host);
    }
    return names;
}

std::string alternativeNames(const std::vector<std::string>& names)
{
    std::string text;
    for (const auto& name : names)
        text += (text.empty() ? "" : ",") + std::string(isNumeric(name) ? "IP:" : "DNS:") + name;
    return text;
}

void addExtension(X509* certificate, int kind, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "a certificate for these names");
}

Certificate makeCertificate(EVP_PKEY* key, const std::vector<std::string>& names)
{
    Certificate certificate(X509_new());
    require(certificate != nullptr, "a certificate");
    X509* const x509 = certificate.get();
    X509_set_version(x509, 2);
    std::array<unsigned char, 16> serial{};
    require(RAND_bytes(serial.data(), static_cast<int>(serial.size())) == 1, "a serial number");
    serial[0] &= 0x7f;
    const std::unique_ptr<BIGNUM, Freed<BN_free>> number(
        BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr));
    BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(x509));
    X509_gmtime_adj(X509_getm_notBefore(x509), -kDaySeconds); // clocks differ
    X509_gmtime_adj(X509_getm_notAfter(x509), (kDays - 1) * kDaySeconds);
    X509_set_pubkey(x509, key);
    X509_NAME* const subject = X509_get_subject_name(x509);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>("Connector"), -1,
                               -1, 0);
    X509_set_issuer_name(x509, subject);
    addExtension(x509, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(x509, NID_key_usage, "critical,digitalSignature");
    addExtension(x509, NID_ext_key_usage, "serverAuth");
    addExtension(x509, NID_subject_alt_name, alternativeNames(names));
    require(X509_sign(x509, key, EVP_sha256()) > 0, "a signature");
    return certificate;
}

Bio openForRead(const fs::path& file) { return Bio(BIO_new_file(file.c_str(), "r")); }

Certificate readCertificate(const fs::path& file)
{
    const Bio bio = openForRead(file);
    return Certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

/// Of a file that only the user can read; null when there is none.
Key readKey(const fs::path& file)
{
    struct stat status
    {};
    if (::lstat(file.c_str(), &status) != 0)
        return nullptr;
    if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || (status.st_mode & 077) != 0)
        fail(file, "is not a file that only this user can read");
    const Bio bio = openForRead(file);
    Key key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!key)
        fail(file, "holds no private key");
    return key;
}

void writeFile(const fs::path& file, const Bio& content)
{
    char* text = nullptr;
    const long length = BIO_get_mem_data(content.get(), &text);
    const fs::path temporary = file.string() + ".new";
    ::unlink(temporary.c_str());
    const common::FileDescriptor made(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!made || ::write(made.number(), text, static_cast<std::size_t>(length)) != length ||
        ::rename(temporary.c_str(), file.c_str()) != 0)
        failWithErrno(file, "cannot be written");
}

bool isGood(X509* certificate, EVP_PKEY* key, const std::vector<std::string>& names)
{
    if (!certificate || X509_check_private_key(certificate, key) != 1)
        return false;
    int days = 0;
    int seconds = 0;
    if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate)) != 1 || days < kRenewDays)
        return false;
    for (const auto& name : names) {
        const bool has = isNumeric(name) ? X509_check_ip_asc(certificate, name.c_str(), 0) == 1
                                         : X509_check_host(certificate, name.data(), name.size(), 0, nullptr) == 1;
        if (!has)
            return false;
    }
    return true;
}

void makeFolder(const fs::path& folder)
{
    if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST)
        failWithErrno(folder, "cannot be made");
}

} // namespace

fs::path defaultTlsFolder()
{
    const char* home = std::getenv("HOME");
    if (!home || *home != '/')
        throw std::runtime_error("TLS: HOME names no folder for the key");
    return fs::path(home) / ".vendra" / "tls";
}

TlsFiles tlsIdentity(const fs::path& folder, const std::vector<std::string>& hosts)
{
    makeFolder(folder.parent_path());
    makeFolder(folder);
    const common::FileDescriptor lock(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status
    {};
    if (!lock || ::fstat(lock.number(), &status) != 0 || ::flock(lock.number(), LOCK_EX) != 0)
        failWithErrno(folder, "cannot be used");
    if (status.st_uid != ::geteuid() || (status.st_mode & 022) != 0)
        fail(folder, "can be written by others");

    const TlsFiles files{folder / "certificate.pem", folder / "key.pem"};
    const auto names = certifiedNames(hosts);
    Key key = readKey(files.key);
    if (!key) {
        key.reset(EVP_EC_gen("P-256"));
        require(key != nullptr, "a key");
        const Bio text(BIO_new(BIO_s_mem()));
        PEM_write_bio_PrivateKey(text.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        writeFile(files.key, text);
    }
    if (!isGood(readCertificate(files.certificate).get(), key.get(), names)) {
        const Bio text(BIO_new(BIO_s_mem()));
        PEM_write_bio_X509(text.get(), makeCertificate(key.get(), names).get());
        writeFile(files.certificate, text);
    }
    return files;
}

std::string certificateFingerprint(const fs::path& file)
{
    const Certificate certificate = readCertificate(file);
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    if (!certificate || X509_digest(certificate.get(), EVP_sha256(), digest.data(), &length) != 1)
        fail(file, "holds no certificate");
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}

} // namespace connector::http
