// Every buffer counts the zero byte after the file's last byte: it is a text as well as a run of bytes.
#include "movrabus/identity.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "logger.h"
#include "movrabus/connection.h"
#include "scoped.h"
#include "tervUtils.h"

namespace
{

using file_buffer = tervbus_buffer;

constexpr uint32_t identity_none = 0;
constexpr uint32_t identity_x509 = 1;
constexpr uint32_t encoding_pem = 2;
constexpr size_t list_slots = 2; // one buffer and the NULL that ends the list
constexpr size_t read_size = 1024;

void close_descriptor(int *descriptor)
{
	close(*descriptor);
}

// The data may be a private key: nothing of it stays in freed memory.
void free_buffer(file_buffer *buffer)
{
	if (buffer == nullptr)
		return;
	if (buffer->data != nullptr)
		explicit_bzero(buffer->data, buffer->length);
	free(buffer->data);
	free(buffer);
}

void free_buffer_list(file_buffer **list)
{
	if (list == nullptr)
		return;
	for (file_buffer **entry = list; *entry != nullptr; entry++)
		free_buffer(*entry);
	free(list);
}

file_buffer **new_buffer_list()
{
	return static_cast<file_buffer **>(mobus_zalloc(list_slots * sizeof(file_buffer *)));
}

// The file's size, with the position at its start; -1, logged, when it cannot be told.
off_t seek_size(int descriptor, const char *path)
{
	off_t size = lseek(descriptor, 0, SEEK_END);
	if (size >= 0 && lseek(descriptor, 0, SEEK_SET) == 0)
		return size;
	LOG_AT(LOG_ERR, mobus_log_source, "Failed to seek %s", path);
	return -1;
}

// Reads exactly size bytes into data. Always asks for a full block, so that a file that has grown is noticed; its bytes
// beyond size are not stored.
bool read_declared(int descriptor, const char *path, char *data, off_t size)
{
	off_t remaining = size;
	while (remaining >= 1) {
		char block[read_size];
		ssize_t count = read(descriptor, block, sizeof block);
		if (count < 0) {
			LOG_AT(LOG_ERR, mobus_log_source, "Failed to read from %s", path);
			break;
		}
		if (count == 0) {
			LOG_AT(LOG_ERR, mobus_log_source,
					"Premature EOF reading %s, file declared %zu bytes, read %ld bytes, remaining %ld bytes", path,
					static_cast<size_t>(size), static_cast<long>(size - remaining), static_cast<long>(remaining));
			break;
		}
		off_t stored = count < remaining ? count : remaining;
		memcpy(data + (size - remaining), block, static_cast<size_t>(stored));
		explicit_bzero(block, sizeof block);
		remaining -= count;
	}
	return remaining == 0;
}

file_buffer *load_whole_file(const char *path)
{
	int descriptor = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
	if (descriptor < 0) {
		LOG_AT(LOG_ERR, mobus_log_source, "unable to open path");
		return nullptr;
	}
	scoped<int, close_descriptor> closer(&descriptor);

	scoped<file_buffer, free_buffer> buffer(static_cast<file_buffer *>(mobus_zalloc(sizeof(file_buffer))));
	if (!buffer) {
		LOG_AT(LOG_ERR, mobus_log_source, "Memory Allocation failed");
		return nullptr;
	}
	buffer->encoding = encoding_pem;

	off_t size = seek_size(descriptor, path);
	if (size < 0)
		return nullptr;
	if (size >= INT32_MAX) {
		LOG_AT(LOG_ERR, mobus_log_source, "Memory Allocation failed"); // its length does not fit the buffer's
		return nullptr;
	}
	buffer->data = static_cast<char *>(mobus_zalloc(static_cast<size_t>(size) + 1));
	if (buffer->data == nullptr)
		return nullptr;
	buffer->length = static_cast<uint32_t>(size) + 1;

	if (!read_declared(descriptor, path, buffer->data, size))
		return nullptr;
	return buffer.release();
}

bool present(const void *part, const char *text)
{
	if (part == nullptr)
		LOG_AT(LOG_ERR, mobus_log_source, "%s", text);
	return part != nullptr;
}

bool load_parts(tervbus_identity *identity, const char *key_path, const char *cert_path, const char *ca_path)
{
	identity->private_key = load_whole_file(key_path);
	if (!present(identity->private_key, "identity->x509.private_key is NULL"))
		return false;
	identity->trust = new_buffer_list();
	if (!present(identity->trust, "identity->x509.trust is NULL"))
		return false;
	identity->chain = new_buffer_list();
	if (!present(identity->chain, "identity->x509.chain is NULL"))
		return false;
	identity->trust[0] = load_whole_file(ca_path);
	if (!present(identity->trust[0], "identity->x509.trust[0] is NULL"))
		return false;
	identity->chain[0] = load_whole_file(cert_path);
	return present(identity->chain[0], "identity->x509.chain[0] is NULL");
}

int load_x509_identity(tervbus_identity *identity, const char *key_path, const char *cert_path, const char *ca_path)
{
	*identity = {};
	identity->type = identity_x509;
	if (load_parts(identity, key_path, cert_path, ca_path))
		return 0;
	release_identity(identity);
	return 1;
}

}

int mobus_load_identity(tervbus_identity *identity, const char *directory)
{
	scoped<char, free> key_path(string_format_alloc("%s/private.pem", directory));
	scoped<char, free> cert_path(string_format_alloc("%s/cert.pem", directory));
	scoped<char, free> ca_path(string_format_alloc("%s/../ca/ca.pem", directory));
	return load_x509_identity(identity, key_path.get(), cert_path.get(), ca_path.get());
}

void release_identity(tervbus_identity *identity)
{
	if (identity->type != identity_x509)
		return;
	free_buffer_list(identity->trust);
	free_buffer_list(identity->chain);
	free(identity->released);
	free_buffer(identity->private_key);
	*identity = {};
	static_assert(identity_none == 0);
}

// Names of one type only, the first one taken; special numbers and unknown types are told whatever is wanted.
char *mobus_identity_lookup(tervbus_identity *identity, uint32_t wanted_type)
{
	char *name = nullptr;
	address_entry *list = nullptr;
	int result = tervbus_ops.get_identity_data(identity, &list, 0, 0);
	for (const address_entry *entry = result == 0 ? list : nullptr; entry != nullptr; entry = entry->next) {
		int type = static_cast<int>(entry->type);
		bool named = entry->type == TERVBUS_ADDRESS_UNIT || entry->type == TERVBUS_ADDRESS_GROUP;
		if (named && entry->type == wanted_type && name == nullptr) {
			const char *format = entry->type == TERVBUS_ADDRESS_UNIT ? "type=%d, ua=%s" : "type=%d, group=%s";
			name = mobus_strdup(entry->value.text);
			LOG_AT(LOG_INFO, mobus_log_source, format, type, mobus_shown(name));
		} else if (entry->type == TERVBUS_ADDRESS_SPECIAL) {
			LOG_AT(LOG_INFO, mobus_log_source, "type=%d, special=%d", type, static_cast<int>(entry->value.number));
		} else if (!named) {
			LOG_AT(LOG_ERR, mobus_log_source, "type=%d", type);
		}
	}
	(void)tervbus_ops.free_address(list, 1); // also after a failure; NULL is accepted
	return name;
}
