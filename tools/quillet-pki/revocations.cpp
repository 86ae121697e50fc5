#include "revocations.h"

#include <ctime>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace
{

// Dated back, for brokers whose clock is a little late. Always by the same time: of two lists the younger one counts.
constexpr int dated_back_days = -1;

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

bool add_entry(X509_CRL *list, const ASN1_INTEGER *serial, const ASN1_TIME *when)
{
	X509_REVOKED *entry = X509_REVOKED_new();
	if (entry == nullptr || X509_REVOKED_set_serialNumber(entry, const_cast<ASN1_INTEGER *>(serial)) != 1 ||
			X509_REVOKED_set_revocationDate(entry, const_cast<ASN1_TIME *>(when)) != 1 ||
			X509_CRL_add0_revoked(list, entry) != 1) {
		X509_REVOKED_free(entry);
		return false;
	}
	return true;
}

bool copy_entries(X509_CRL *list, X509_CRL *before)
{
	STACK_OF(X509_REVOKED) *entries = before != nullptr ? X509_CRL_get_REVOKED(before) : nullptr;
	for (int i = 0; i < sk_X509_REVOKED_num(entries); i++) {
		const X509_REVOKED *entry = sk_X509_REVOKED_value(entries, i);
		if (!add_entry(list, X509_REVOKED_get0_serialNumber(entry), X509_REVOKED_get0_revocationDate(entry)))
			return false;
	}
	return true;
}

bool add_certificates(X509_CRL *list, const std::vector<X509 *> &certificates)
{
	// No time_t is handed over: where it was widened, the library may still have the narrow one.
	time_pointer now(X509_time_adj_ex(nullptr, 0, 0, nullptr));
	if (!now)
		return false;
	for (X509 *certificate : certificates) {
		X509_REVOKED *known = nullptr;
		if (X509_CRL_get0_by_serial(list, &known, X509_get_serialNumber(certificate)) == 0 &&
				!add_entry(list, X509_get0_serialNumber(certificate), now.get()))
			return false;
	}
	return true;
}

bool set_number(X509_CRL *list, X509_CRL *before)
{
	auto *last = before == nullptr
			? nullptr
			: static_cast<ASN1_INTEGER *>(X509_CRL_get_ext_d2i(before, NID_crl_number, nullptr, nullptr));
	ASN1_INTEGER *number = ASN1_INTEGER_new();
	bool set = number != nullptr &&
			ASN1_INTEGER_set_int64(number, last != nullptr ? ASN1_INTEGER_get(last) + 1 : 1) == 1 &&
			X509_CRL_add1_ext_i2d(list, NID_crl_number, number, 0, 0) == 1;
	ASN1_INTEGER_free(number);
	ASN1_INTEGER_free(last);
	return set;
}

bool set_key_identifier(X509_CRL *list, X509 *issuer)
{
	X509V3_CTX context;
	X509V3_set_ctx_nodb(&context);
	X509V3_set_ctx(&context, issuer, nullptr, nullptr, list, 0);
	X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, NID_authority_key_identifier, "keyid");
	bool added = extension != nullptr && X509_CRL_add_ext(list, extension, -1) == 1;
	X509_EXTENSION_free(extension);
	return added;
}

bool fill(X509_CRL *list, const identity &ca, X509_CRL *before, const std::vector<X509 *> &certificates)
{
	time_pointer begin(X509_time_adj_ex(nullptr, dated_back_days, 0, nullptr));
	return begin && X509_CRL_set_version(list, X509_CRL_VERSION_2) == 1 &&
			X509_CRL_set_issuer_name(list, X509_get_subject_name(ca.certificate.get())) == 1 &&
			X509_CRL_set1_lastUpdate(list, begin.get()) == 1 &&
			X509_CRL_set1_nextUpdate(list, X509_get0_notAfter(ca.certificate.get())) == 1 &&
			copy_entries(list, before) && add_certificates(list, certificates) && set_number(list, before) &&
			set_key_identifier(list, ca.certificate.get()) && X509_CRL_sort(list) == 1 &&
			X509_CRL_sign(list, ca.key.get(), EVP_sha256()) != 0;
}

} // namespace

bool make_revocations(const identity &ca, X509_CRL *before, const std::vector<X509 *> &certificates,
		revocation_list &made, std::string &error)
{
	revocation_list fresh(X509_CRL_new());
	if (!fresh || !fill(fresh.get(), ca, before, certificates)) {
		error = "the list of revoked certificates could not be made";
		return false;
	}
	made = std::move(fresh);
	return true;
}

std::string revocations_pem(const revocation_list &list)
{
	bio_pointer bio(BIO_new(BIO_s_mem()));
	if (!bio || PEM_write_bio_X509_CRL(bio.get(), list.get()) != 1)
		return "";
	char *data = nullptr;
	const long length = BIO_get_mem_data(bio.get(), &data);
	return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

bool parse_revocations(const std::string &text, revocation_list &read, std::string &error)
{
	bio_pointer bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
	revocation_list fresh(bio ? PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr) : nullptr);
	if (!fresh) {
		error = "not a list of revoked certificates in PEM form";
		return false;
	}
	read = std::move(fresh);
	return true;
}

bool is_revoked(const revocation_list &list, X509 *certificate)
{
	X509_REVOKED *entry = nullptr;
	return list && X509_CRL_get0_by_cert(list.get(), &entry, certificate) != 0;
}

size_t count_revoked(const revocation_list &list)
{
	const int count = list ? sk_X509_REVOKED_num(X509_CRL_get_REVOKED(list.get())) : 0;
	return count > 0 ? static_cast<size_t>(count) : 0;
}
