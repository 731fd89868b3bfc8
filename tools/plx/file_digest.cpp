// See file_digest.hpp.
#include "file_digest.hpp"

#include <filesystem>
#include <fstream>
#include <new>
#include <openssl/evp.h>
#include <string_view>
#include <vector>

namespace plx::tool {

namespace {

constexpr std::string_view version = PLX_VERSION;

} // namespace

void FileDigester::Free::operator()(evp_md_ctx_st *context) const
{
    EVP_MD_CTX_free(context);
}

FileDigester::FileDigester() : context_(EVP_MD_CTX_new())
{
    if (context_ == nullptr || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
    add(version.data(), version.size() + 1); // and its zero
}

void FileDigester::add(const char *bytes, size_t size)
{
    if (EVP_DigestUpdate(context_.get(), bytes, size) != 1)
        throw std::bad_alloc();
}

FileDigest FileDigester::result()
{
    FileDigest digest{};
    if (EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1)
        throw std::bad_alloc();
    return digest;
}

std::streamsize DigestedBuffer::xsgetn(char *bytes, std::streamsize size)
{
    const std::streamsize got = from_.sgetn(bytes, size);
    digester_.add(bytes, static_cast<size_t>(got));
    return got;
}

std::optional<FileDigest> digest_of_file(const std::string &path)
{
    constexpr size_t at_once = 64U << 10U;
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return std::nullopt;
    std::ifstream file(path, std::ios::binary);
    FileDigester digester;
    std::vector<char> buffer(at_once);
    while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size())), file.gcount() > 0)
        digester.add(buffer.data(), static_cast<size_t>(file.gcount()));
    return file.eof() ? std::optional(digester.result()) : std::nullopt;
}

} // namespace plx::tool
