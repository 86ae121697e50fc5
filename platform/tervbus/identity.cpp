#include "identity.h"

#include "broker_url.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstring>

namespace
{

constexpr uint32_t identity_type_x509 = 1;
constexpr uint32_t encoding_pem = 2;
constexpr uint32_t buffer_max = 1u << 20; // no certificate file is larger

using bio = scoped<BIO, BIO_free_all>;
using certificate = scoped<X509, X509_free>;
using store_context = scoped<X509_STORE_CTX, X509_STORE_CTX_free>;
using private_key = scoped<EVP_PKEY, EVP_PKEY_free>;

bool fail(const char **why, const char *reason)
{
	*why = reason;
	ERR_clear_error();
	return false;
}

// An encrypted key is refused; without this, OpenSSL would ask for its password on the terminal.
int no_password(char *, int, int, void *asked)
{
	if (asked != nullptr)
		*static_cast<bool *>(asked) = true;
	return 0;
}

bio open_buffer(const tervbus_buffer *buffer)
{
	if (buffer == nullptr || buffer->data == nullptr || buffer->encoding != encoding_pem || buffer->length > buffer_max)
		return nullptr;
	const size_t length = strnlen(buffer->data, buffer->length);
	return bio(BIO_new_mem_buf(buffer->data, static_cast<int>(length)));
}

bool usable_shape(const tervbus_identity *identity)
{
	return identity != nullptr && identity->type == identity_type_x509 && identity->chain != nullptr &&
			identity->chain[0] != nullptr;
}

certificate read_certificate(BIO *source)
{
	return certificate(PEM_read_bio_X509(source, nullptr, no_password, nullptr));
}

certificate own_certificate(const tervbus_identity *identity)
{
	const bio source = usable_shape(identity) ? open_buffer(identity->chain[0]) : nullptr;
	return source ? read_certificate(source.get()) : nullptr;
}

bool name_text(const X509_NAME *subject, int index, bus_name *name)
{
	unsigned char *utf8 = nullptr;
	const ASN1_STRING *data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
	const int length = ASN1_STRING_to_UTF8(&utf8, data);
	if (length < 0)
		return false;
	const std::string_view text(reinterpret_cast<const char *>(utf8), static_cast<size_t>(length));
	const bool usable = bus_name_usable(text);
	if (usable)
		*name = bus_name_of(text);
	OPENSSL_free(utf8);
	return usable;
}

// Has the reader stopped because there is no further certificate, rather than at one that it could not read?
bool at_end(size_t count)
{
	const unsigned long error = ERR_peek_last_error();
	return count > 0 && ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
}

// Every certificate of the buffer goes to the sink; false for none, or when one cannot be used.
template <typename Sink>
bool for_each_certificate(const tervbus_buffer *buffer, Sink sink)
{
	const bio source = open_buffer(buffer);
	if (!source)
		return false;

	size_t count = 0;
	ERR_clear_error();
	for (certificate next = read_certificate(source.get()); next; next = read_certificate(source.get())) {
		if (!sink(std::move(next)))
			return false;
		count++;
	}
	return at_end(count);
}

bool use_chain(SSL_CTX *context, tervbus_buffer *const *chain)
{
	bool own_follows = true;
	const auto use = [context, &own_follows](certificate next) {
		if (own_follows) {
			own_follows = false;
			return SSL_CTX_use_certificate(context, next.get()) == 1;
		}
		return SSL_CTX_add1_chain_cert(context, next.get()) == 1;
	};
	for (; *chain != nullptr; chain++)
		if (!for_each_certificate(*chain, use))
			return false;
	return true;
}

bool use_trust(SSL_CTX *context, tervbus_buffer *const *trust)
{
	const auto use = [context](certificate next) {
		return X509_STORE_add_cert(SSL_CTX_get_cert_store(context), next.get()) == 1;
	};
	if (trust == nullptr || *trust == nullptr)
		return false;
	for (; *trust != nullptr; trust++)
		if (!for_each_certificate(*trust, use))
			return false;
	return true;
}

// NULL, or why not.
const char *use_private_key(SSL_CTX *context, const tervbus_buffer *buffer)
{
	bool encrypted = false;
	const bio source = open_buffer(buffer);
	const private_key key(source ? PEM_read_bio_PrivateKey(source.get(), nullptr, no_password, &encrypted) : nullptr);
	if (!key)
		return encrypted ? "the private key is encrypted" : "the private key cannot be used";
	// The first compares keys of the same kind already.
	if (SSL_CTX_use_PrivateKey(context, key.get()) != 1 || SSL_CTX_check_private_key(context) != 1)
		return "the private key is not the certificate's";
	return nullptr;
}

tls_report *report_of(const SSL *ssl)
{
	return static_cast<tls_report *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
}

int note_verification(int ok, X509_STORE_CTX *store)
{
	const void *ssl = X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx());
	if (ok != 1)
		report_of(static_cast<const SSL *>(ssl))->verify_error = X509_STORE_CTX_get_error(store);
	return ok;
}

void note_progress(const SSL *ssl, int where, int alert)
{
	if ((where & SSL_CB_READ_ALERT) == SSL_CB_READ_ALERT)
		report_of(ssl)->alert = alert & 0xFF;
	if ((where & SSL_CB_HANDSHAKE_DONE) != 0)
		report_of(ssl)->complete = true;
}

// The MQTT library checks no host name under a context that is not its own, so the context does.
bool expect_host(SSL_CTX *context, const char *host)
{
	X509_VERIFY_PARAM *param = SSL_CTX_get0_param(context);
	if (broker_host_is_numeric(host))
		return X509_VERIFY_PARAM_set1_ip_asc(param, host) == 1;
	X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
	return X509_VERIFY_PARAM_set1_host(param, host, strlen(host)) == 1;
}

} // namespace

bool identity_names(const tervbus_identity *identity, bus_names *names, const char **why)
{
	const certificate own = own_certificate(identity);
	if (!own)
		return fail(why, "no certificate");

	const X509_NAME *subject = X509_get_subject_name(own.get());
	const int cn = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
	if (cn < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, cn) >= 0)
		return fail(why, "the certificate has not exactly one CN");

	bus_names found;
	if (!name_text(subject, cn, &found.unit))
		return fail(why,
				"the certificate's CN is no usable name: empty, too long, not UTF-8, or with / + # or a control "
				"character");

	const int ou = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
	if (ou >= 0 && !name_text(subject, ou, &found.group))
		return fail(why, "the certificate's OU is no usable name");

	*names = found;
	return true;
}

tls_context identity_tls_context(
		const tervbus_identity *identity, const char *host, tls_report *report, const char **why)
{
	const auto refuse = [why](const char *reason) {
		(void)fail(why, reason); // always false
		return nullptr;
	};

	if (!usable_shape(identity))
		return refuse("no identity");

	tls_context context(SSL_CTX_new(TLS_client_method()));
	if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1)
		return refuse("no TLS");
	if (SSL_CTX_set_app_data(context.get(), report) != 1)
		return refuse("no TLS");

	if (!use_chain(context.get(), identity->chain))
		return refuse("the certificate cannot be used");
	if (const char *reason = use_private_key(context.get(), identity->private_key); reason != nullptr)
		return refuse(reason);
	if (!use_trust(context.get(), identity->trust))
		return refuse("the CA certificate cannot be used");
	if (!expect_host(context.get(), host))
		return refuse("the broker's host name cannot be checked");

	SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, note_verification);
	SSL_CTX_set_info_callback(context.get(), note_progress);
	ERR_clear_error();
	return context;
}

const char *identity_fault(SSL_CTX *context)
{
	const store_context check(X509_STORE_CTX_new());
	STACK_OF(X509) *chain = nullptr;
	(void)SSL_CTX_get0_chain_certs(context, &chain); // always succeeds
	if (!check ||
			X509_STORE_CTX_init(
					check.get(), SSL_CTX_get_cert_store(context), SSL_CTX_get0_certificate(context), chain) != 1 ||
			X509_STORE_CTX_set_purpose(check.get(), X509_PURPOSE_SSL_CLIENT) != 1)
		return nullptr;
	const bool valid = X509_verify_cert(check.get()) == 1;
	ERR_clear_error();
	return valid ? nullptr : X509_verify_cert_error_string(X509_STORE_CTX_get_error(check.get()));
}
