#include "web/secrets.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace vxweb {

namespace {

constexpr std::size_t MAX_LOGIN = 1024;

/// A file opened for reading.
class OpenFile {
  public:
    explicit OpenFile(const std::string& path)
        : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~OpenFile() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }

  private:
    int descriptor_;
};

std::string reason() {
    return std::generic_category().message(errno);
}

/// OpenSSL's reason, which for a file that cannot be read is the system's.
std::string reason(const boost::system::error_code& error) {
    const auto code = static_cast<unsigned>(error.value());
    return ERR_GET_LIB(code) == ERR_LIB_SYS ? std::generic_category().message(ERR_GET_REASON(code))
                                            : error.message();
}

/// The first bytes of a file, enough to recognise one that is too long.
std::string contentOf(const OpenFile& file) {
    std::string content(MAX_LOGIN + 1, '\0');
    const ssize_t length = read(file.descriptor(), content.data(), content.size());
    content.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return content;
}

}  // namespace

std::string readLogin(const std::string& path, std::string& login) {
    const OpenFile file(path);
    struct stat state = {};
    if (file.descriptor() < 0 || fstat(file.descriptor(), &state) != 0) {
        return "cannot read the password file " + path + ": " + reason();
    }
    if ((state.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return "the password file " + path + " is readable by others: run chmod 600";
    }
    std::string line = contentOf(file);
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == line.size() ||
        line.size() > MAX_LOGIN || line.find_first_of(std::string("\r\n\0", 3)) < line.size()) {
        return "the password file " + path + " must contain one line, user:password";
    }
    login = std::move(line);
    return {};
}

std::string openTls(const std::string& certificate, const std::string& key,
                    std::unique_ptr<boost::asio::ssl::context>& tls) {
    auto context =
        std::make_unique<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server);
    SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    SSL_CTX_set_mode(context->native_handle(), SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_options(context->native_handle(), SSL_OP_NO_RENEGOTIATION);
    // No terminal to ask for a key's password.
    boost::system::error_code error;
    context->set_password_callback([](std::size_t, auto) { return std::string(); }, error);
    context->use_certificate_chain_file(certificate, error);
    if (error) {
        return "cannot use the certificate " + certificate + ": " + reason(error);
    }
    context->use_private_key_file(key, boost::asio::ssl::context::pem, error);
    if (error) {
        return "cannot use the key " + key + ": " + reason(error);
    }
    tls = std::move(context);
    return {};
}

}  // namespace vxweb
