// A number for a file's bytes that nobody can make another file for.
#pragma once

#include <array>
#include <cstdint>
#include <istream>
#include <memory>
#include <optional>
#include <span>
#include <streambuf>
#include <string>

struct evp_md_ctx_st;

namespace plx::tool {

using FileDigest = std::array<uint8_t, 32>;

// Of this version of the program: another one may understand the same bytes otherwise.
class FileDigester {
  public:
    FileDigester(); // std::bad_alloc
    void add(const char *bytes, size_t size);
    FileDigest result(); // once

  private:
    struct Free {
        void operator()(evp_md_ctx_st *context) const;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context_;
};

// Passes on what is read of another buffer, with a digest of it.
class DigestedBuffer : public std::streambuf {
  public:
    explicit DigestedBuffer(std::streambuf &from) : from_(from) {}
    FileDigest result() { return digester_.result(); }

  protected:
    std::streamsize xsgetn(char *bytes, std::streamsize size) override;

  private:
    std::streambuf &from_;
    FileDigester digester_;
};

// Of a whole regular file; nullopt where it cannot be read, and for what can be read once only.
std::optional<FileDigest> digest_of_file(const std::string &path);

} // namespace plx::tool
