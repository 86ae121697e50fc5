#include "certificates.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>

namespace
{

struct bio_deleter {
	void operator()(BIO *bio) const
	{
		BIO_free(bio);
	}
};
using bio_pointer = std::unique_ptr<BIO, bio_deleter>;

struct time_deleter {
	void operator()(ASN1_TIME *time) const
	{
		ASN1_TIME_free(time);
	}
};
using time_pointer = std::unique_ptr<ASN1_TIME, time_deleter>;

struct extension_row {
	int nid;
	const char *value; // in OpenSSL's configuration syntax; NULL for an extension that this kind does not have
};

// Extensions by kind of certificate; the identifiers of subject and issuer key come on top for each.
constexpr extension_row ca_extensions[] = {
		{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
		{NID_key_usage, "critical,keyCertSign,cRLSign"},
};
constexpr extension_row node_extensions[] = {
		{NID_basic_constraints, "critical,CA:FALSE"},
		{NID_key_usage, "critical,digitalSignature"},
		{NID_ext_key_usage, "clientAuth"},
};
constexpr extension_row broker_extensions[] = {
		{NID_basic_constraints, "critical,CA:FALSE"},
		{NID_key_usage, "critical,digitalSignature"},
		{NID_ext_key_usage, "serverAuth"},
};

bool add_extension(X509 *certificate, X509 *issuer, int nid, const char *value)
{
	X509V3_CTX context;
	X509V3_set_ctx_nodb(&context);
	X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
	X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
	if (extension == nullptr)
		return false;
	bool added = X509_add_ext(certificate, extension, -1) == 1;
	X509_EXTENSION_free(extension);
	return added;
}

template <size_t count>
bool add_rows(X509 *certificate, X509 *issuer, const extension_row (&rows)[count])
{
	for (const extension_row &row : rows) {
		if (!add_extension(certificate, issuer, row.nid, row.value))
			return false;
	}
	return true;
}

std::string alternative_names(const certificate_request &request)
{
	std::string names;
	for (const std::string &host : request.hosts)
		names += (names.empty() ? "DNS:" : ",DNS:") + host;
	for (const std::string &address : request.addresses)
		names += (names.empty() ? "IP:" : ",IP:") + address;
	return names;
}

bool add_kind_extensions(const certificate_request &request, X509 *certificate, X509 *issuer)
{
	switch (request.kind) {
	case certificate_kind::ca:
		return add_rows(certificate, issuer, ca_extensions);
	case certificate_kind::node:
		return add_rows(certificate, issuer, node_extensions);
	case certificate_kind::broker:
		return add_rows(certificate, issuer, broker_extensions) &&
				add_extension(certificate, issuer, NID_subject_alt_name, alternative_names(request).c_str());
	}
	return false;
}

bool add_name(X509_NAME *name, int nid, const std::string &text)
{
	return X509_NAME_add_entry_by_NID(name, nid, MBSTRING_UTF8, reinterpret_cast<const unsigned char *>(text.data()),
				   static_cast<int>(text.size()), -1, 0) == 1;
}

// 127 random bits: unique without a counter on disk, positive as RFC 5280 demands.
bool set_serial(X509 *certificate)
{
	unsigned char bytes[16];
	if (RAND_bytes(bytes, sizeof(bytes)) != 1)
		return false;
	bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7F) | 0x40);
	BIGNUM *number = BN_bin2bn(bytes, sizeof(bytes), nullptr);
	bool set = number != nullptr && BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate)) != nullptr;
	BN_free(number);
	return set;
}

bool set_validity(const certificate_request &request, X509 *issuer, X509 *certificate)
{
	if (X509_time_adj_ex(X509_getm_notBefore(certificate), request.start_days, 0, nullptr) == nullptr ||
			X509_time_adj_ex(X509_getm_notAfter(certificate), request.start_days + request.days, 0, nullptr) == nullptr)
		return false;
	return !ends_before(issuer, certificate) || X509_set1_notAfter(certificate, X509_get0_notAfter(issuer)) == 1;
}

bool fill_certificate(const certificate_request &request, const identity *issuer, identity &made)
{
	X509 *certificate = made.certificate.get();
	X509 *issuer_certificate = issuer != nullptr ? issuer->certificate.get() : certificate;
	EVP_PKEY *issuer_key = issuer != nullptr ? issuer->key.get() : made.key.get();
	X509_NAME *subject = X509_get_subject_name(certificate);

	return X509_set_version(certificate, X509_VERSION_3) == 1 && set_serial(certificate) &&
			set_validity(request, issuer_certificate, certificate) &&
			X509_set_pubkey(certificate, made.key.get()) == 1 &&
			add_name(subject, NID_commonName, request.common_name) &&
			(request.group.empty() || add_name(subject, NID_organizationalUnitName, request.group)) &&
			X509_set_issuer_name(certificate, X509_get_subject_name(issuer_certificate)) == 1 &&
			add_kind_extensions(request, certificate, issuer_certificate) &&
			add_extension(certificate, issuer_certificate, NID_subject_key_identifier, "hash") &&
			add_extension(certificate, issuer_certificate, NID_authority_key_identifier, "keyid") &&
			X509_sign(certificate, issuer_key, EVP_sha256()) != 0;
}

bool begins_too_late(const certificate_request &request, X509 *issuer)
{
	const time_pointer begin(X509_time_adj_ex(nullptr, request.start_days, 0, nullptr));
	return begin && ASN1_TIME_compare(begin.get(), X509_get0_notAfter(issuer)) >= 0;
}

std::string openssl_cause()
{
	char text[256] = "no detail";
	unsigned long code = ERR_peek_last_error();
	if (code != 0)
		ERR_error_string_n(code, text, sizeof(text));
	ERR_clear_error();
	return text;
}

std::string bio_text(BIO *bio)
{
	char *data = nullptr;
	long length = BIO_get_mem_data(bio, &data);
	return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

bio_pointer reader(const std::string &text)
{
	return bio_pointer(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// Instead of OpenSSL's prompt on the terminal.
int refuse_password(char *, int, int, void *)
{
	return 0;
}

std::string name_entry(X509_NAME *name, int nid)
{
	int position = X509_NAME_get_index_by_NID(name, nid, -1);
	if (position < 0)
		return "";
	unsigned char *text = nullptr;
	int length = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, position)));
	if (length < 0)
		return "";
	std::string result(reinterpret_cast<char *>(text), static_cast<size_t>(length));
	OPENSSL_free(text);
	return result;
}

std::string address_text(const ASN1_OCTET_STRING *address)
{
	char text[INET6_ADDRSTRLEN] = "";
	const int family = ASN1_STRING_length(address) == sizeof(in_addr) ? AF_INET : AF_INET6;
	if (family == AF_INET6 && ASN1_STRING_length(address) != sizeof(in6_addr))
		return "";
	const char *written = inet_ntop(family, ASN1_STRING_get0_data(address), text, sizeof(text));
	return written != nullptr ? written : "";
}

void describe_alternative_names(X509 *certificate, certificate_facts &facts)
{
	auto *names = static_cast<GENERAL_NAMES *>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
	for (int i = 0; i < sk_GENERAL_NAME_num(names); i++) {
		const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
		if (name->type == GEN_DNS)
			facts.hosts.emplace_back(reinterpret_cast<const char *>(ASN1_STRING_get0_data(name->d.dNSName)),
					static_cast<size_t>(ASN1_STRING_length(name->d.dNSName)));
		else if (name->type == GEN_IPADD)
			facts.addresses.push_back(address_text(name->d.iPAddress));
	}
	GENERAL_NAMES_free(names);
}

} // namespace

bool make_identity(const certificate_request &request, const identity *issuer, identity &made, std::string &error)
{
	identity fresh;
	if (issuer != nullptr && begins_too_late(request, issuer->certificate.get())) {
		error = "the certificate of \"" + request.common_name + "\" would begin when its CA has ended, on " +
				describe_certificate(issuer->certificate.get()).not_after + "; give fewer --start-days";
		return false;
	}
	if (made.key && EVP_PKEY_up_ref(made.key.get()) == 1)
		fresh.key.reset(made.key.get());
	else
		fresh.key.reset(EVP_EC_gen("P-256"));
	fresh.certificate.reset(X509_new());
	if (!fresh.key || !fresh.certificate || !fill_certificate(request, issuer, fresh)) {
		error = "the certificate of \"" + request.common_name + "\" could not be made (" + openssl_cause() + ")";
		return false;
	}
	made = std::move(fresh);
	return true;
}

std::string key_pem(const identity &held)
{
	bio_pointer bio(BIO_new(BIO_s_mem()));
	if (!bio || PEM_write_bio_PrivateKey(bio.get(), held.key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
		return "";
	return bio_text(bio.get());
}

std::string certificate_pem(const identity &held)
{
	bio_pointer bio(BIO_new(BIO_s_mem()));
	if (!bio || PEM_write_bio_X509(bio.get(), held.certificate.get()) != 1)
		return "";
	return bio_text(bio.get());
}

bool parse_identity(const std::string &key, const std::string &certificate, identity &read, std::string &error)
{
	identity fresh;
	bio_pointer certificate_reader = reader(certificate);
	fresh.certificate.reset(PEM_read_bio_X509(certificate_reader.get(), nullptr, nullptr, nullptr));
	if (!fresh.certificate) {
		error = "not a certificate in PEM form (" + openssl_cause() + ")";
		return false;
	}
	if (!key.empty()) {
		bio_pointer key_reader = reader(key);
		fresh.key.reset(PEM_read_bio_PrivateKey(key_reader.get(), nullptr, refuse_password, nullptr));
		if (!fresh.key) {
			error = "not an unencrypted private key in PEM form (" + openssl_cause() + ")";
			return false;
		}
		if (X509_check_private_key(fresh.certificate.get(), fresh.key.get()) != 1) {
			error = "the private key does not belong to the certificate";
			ERR_clear_error();
			return false;
		}
	}
	read = std::move(fresh);
	return true;
}

certificate_facts describe_certificate(X509 *certificate)
{
	certificate_facts facts;
	X509_NAME *subject = X509_get_subject_name(certificate);
	facts.common_name = name_entry(subject, NID_commonName);
	facts.group = name_entry(subject, NID_organizationalUnitName);
	describe_alternative_names(certificate, facts);
	int seconds = 0;
	(void)ASN1_TIME_diff(&facts.days_left, &seconds, nullptr, X509_get0_notAfter(certificate)); // 0 for a broken time
	facts.expired = X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0;
	bio_pointer bio(BIO_new(BIO_s_mem()));
	if (bio && ASN1_TIME_print(bio.get(), X509_get0_notAfter(certificate)) == 1)
		facts.not_after = bio_text(bio.get());
	return facts;
}

int days_cut_off(X509 *certificate, int start_days, int days)
{
	const time_pointer wanted(X509_time_adj_ex(nullptr, start_days + days, 0, nullptr));
	int missing = 0;
	int seconds = 0;
	if (!wanted || ASN1_TIME_diff(&missing, &seconds, X509_get0_notAfter(certificate), wanted.get()) != 1)
		return 0;
	return missing > 0 ? missing : 0;
}

bool ends_before(X509 *first, X509 *second)
{
	return ASN1_TIME_compare(X509_get0_notAfter(first), X509_get0_notAfter(second)) == -1;
}

std::string serial_text(X509 *certificate)
{
	BIGNUM *number = ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr);
	char *digits = number != nullptr ? BN_bn2hex(number) : nullptr;
	std::string text = digits != nullptr ? digits : "";
	OPENSSL_free(digits);
	BN_free(number);
	return text;
}
