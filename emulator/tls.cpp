#include "emulator/tls.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "emulator/ids.h"

namespace emulator {

namespace {

constexpr long kDays = 3650;
constexpr char kServerNames[] =
    "IP:127.0.0.1,IP:::1,DNS:localhost,DNS:www.googleapis.com,DNS:oauth2.googleapis.com,"
    "DNS:accounts.google.com";

struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateFree {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct ExtensionFree {
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
struct FileClose {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Certificate = std::unique_ptr<X509, CertificateFree>;
using File = std::unique_ptr<std::FILE, FileClose>;

void Require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error("TLS: cannot " + what);
}

void AddExtension(X509* certificate, X509* issuer, int kind, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, ExtensionFree> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value));
  Require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "add an extension");
}

Certificate NewCertificate(const char* name, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey) {
  Certificate certificate(X509_new());
  X509* const raw = certificate.get();
  X509_set_version(raw, 2);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(raw), RandomKey() >> 1);
  X509_gmtime_adj(X509_getm_notBefore(raw), -86400);
  X509_gmtime_adj(X509_getm_notAfter(raw), kDays * 86400);
  X509_set_pubkey(raw, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(raw), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
  X509* const signer = issuer != nullptr ? issuer : raw;
  X509_set_issuer_name(raw, X509_get_subject_name(signer));
  AddExtension(raw, signer, NID_subject_key_identifier, "hash");
  if (issuer == nullptr) {
    AddExtension(raw, signer, NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(raw, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    AddExtension(raw, signer, NID_basic_constraints, "CA:FALSE");
    AddExtension(raw, signer, NID_authority_key_identifier, "keyid");
    AddExtension(raw, signer, NID_ext_key_usage, "serverAuth");
    AddExtension(raw, signer, NID_subject_alt_name, kServerNames);
  }
  Require(X509_sign(raw, issuerKey, EVP_sha256()) > 0, "sign a certificate");
  return certificate;
}

File OpenForWriting(const std::filesystem::path& path) {
  File file(std::fopen(path.c_str(), "w"));
  Require(file != nullptr, "write " + path.string());
  return file;
}

void WriteCertificates(const std::filesystem::path& directory) {
  const Key authorityKey(EVP_EC_gen("P-256")), serverKey(EVP_EC_gen("P-256"));
  Require(authorityKey && serverKey, "make a key");
  const Certificate authority =
      NewCertificate("drive-emulator authority", authorityKey.get(), nullptr, authorityKey.get());
  const Certificate server =
      NewCertificate("drive-emulator", serverKey.get(), authority.get(), authorityKey.get());
  PEM_write_X509(OpenForWriting(directory / "ca.pem").get(), authority.get());
  PEM_write_X509(OpenForWriting(directory / "server.pem").get(), server.get());
  const auto keyPath = directory / "server-key.pem";
  PEM_write_PrivateKey(OpenForWriting(keyPath).get(), serverKey.get(), nullptr, nullptr, 0, nullptr,
                       nullptr);
  std::filesystem::permissions(
      keyPath, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

}  // namespace

SslContext ServerTls(const std::string& place) {
  const std::filesystem::path directory(place);
  std::filesystem::create_directories(directory);
  const auto certificate = directory / "server.pem", key = directory / "server-key.pem";
  if (!std::filesystem::exists(certificate) || !std::filesystem::exists(key) ||
      !std::filesystem::exists(directory / "ca.pem")) {
    WriteCertificates(directory);
  }
  SslContext context(SSL_CTX_new(TLS_server_method()));
  Require(context != nullptr, "make a context");
  Require(
      SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) == 1 &&
          SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) == 1,
      "load " + certificate.string() + " and its key; remove the folder to have them made anew");
  return context;
}

}  // namespace emulator
