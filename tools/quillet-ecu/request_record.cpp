#include "request_record.h"

#include <cerrno>
#include <cstring>
#include <ctime>

namespace
{

// How many bytes of a PDU the trace shows; the log has all of them.
constexpr size_t traced_bytes = 64;

// UTC with milliseconds, "2024-05-01T12:00:00.123Z".
std::string time_stamp()
{
	timespec now = {};
	(void)clock_gettime(CLOCK_REALTIME, &now); // cannot fail with this clock
	tm parts = {};
	if (gmtime_r(&now.tv_sec, &parts) == nullptr)
		return "?";
	char date[32];
	char text[48];
	(void)strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &parts); // always fits
	(void)snprintf(text, sizeof(text), "%s.%03ldZ", date, now.tv_nsec / 1000000);
	return text;
}

std::string hex(std::span<const uint8_t> bytes, const char *between)
{
	static const char digits[] = "0123456789ABCDEF";
	std::string text;
	for (const uint8_t byte : bytes) {
		text += text.empty() ? "" : between;
		text += digits[byte >> 4];
		text += digits[byte & 0x0F];
	}
	return text;
}

void trace_line(const std::string &ecu, const char *direction, std::span<const uint8_t> pdu, const char *more)
{
	const std::string shown = hex(pdu.first(pdu.size() < traced_bytes ? pdu.size() : traced_bytes), " ");
	const std::string rest =
			pdu.size() > traced_bytes ? " ... (" + std::to_string(pdu.size()) + " bytes)" : std::string();
	printf("%s %s %s %s%s%s\n", time_stamp().c_str(), ecu.c_str(), direction, shown.c_str(), rest.c_str(), more);
	(void)fflush(stdout); // a reader that has gone is no reason to stop serving
}

} // namespace

bool request_record_open(request_record *record, const std::string &path, std::string *error)
{
	record->log = fopen(path.c_str(), "ae");
	if (record->log == nullptr)
		*error = "the request log " + path + " cannot be opened: " + strerror(errno);
	return record->log != nullptr;
}

void request_record_close(request_record *record)
{
	if (record->log != nullptr)
		(void)fclose(record->log); // every line has been flushed
	record->log = nullptr;
}

void request_record_request(
		const request_record &record, const std::string &ecu, std::span<const uint8_t> pdu, uds_addressing addressing)
{
	const char *more = addressing == UDS_FUNCTIONAL ? " functional" : "";
	if (record.log != nullptr) {
		(void)fprintf(record.log, "%s %s %s%s\n", time_stamp().c_str(), ecu.c_str(), hex(pdu, "").c_str(), more);
		(void)fflush(record.log); // a full disk is no reason to stop serving
	}
	if (record.trace)
		trace_line(ecu, "<-", pdu, more);
}

void request_record_answer(const request_record &record, const std::string &ecu, std::span<const uint8_t> pdu)
{
	if (record.trace)
		trace_line(ecu, "->", pdu, "");
}
