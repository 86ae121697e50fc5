#include "broker_url.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace
{

constexpr std::string_view scheme = "tcp://";

bool host_character(char character)
{
	const unsigned char byte = static_cast<unsigned char>(character);
	return byte > 0x20 && byte != 0x7F && character != '/' && character != '@' && character != '[' && character != ']';
}

bool parse_port(std::string_view text, uint16_t *port)
{
	const char *end = text.data() + text.size();
	uint16_t value = 0;
	const auto [stop, error] = std::from_chars(text.data(), end, value);
	if (error != std::errc() || stop != end || value == 0)
		return false;
	*port = value;
	return true;
}

// Splits "host:port" or "[address]:port".
bool split_authority(std::string_view text, std::string_view *host, std::string_view *port)
{
	const size_t colon = text.rfind(':');
	if (colon == std::string_view::npos)
		return false;
	*host = text.substr(0, colon);
	*port = text.substr(colon + 1);
	if (host->size() >= 2 && host->front() == '[' && host->back() == ']') {
		*host = host->substr(1, host->size() - 2);
		return true;
	}
	return host->find(':') == std::string_view::npos;
}

} // namespace

bool broker_url_parse(std::string_view text, broker_url *url)
{
	std::string_view host;
	std::string_view port;

	if (text.substr(0, scheme.size()) != scheme || !split_authority(text.substr(scheme.size()), &host, &port))
		return false;
	if (host.empty() || host.size() > host_max || !std::all_of(host.begin(), host.end(), host_character))
		return false;

	uint16_t number = 0;
	if (!parse_port(port, &number))
		return false;

	broker_url parsed;
	memcpy(parsed.host, host.data(), host.size());
	parsed.port = number;
	*url = parsed;
	return true;
}

bool broker_host_is_numeric(const char *host)
{
	unsigned char address[sizeof(in6_addr)];
	return inet_pton(AF_INET, host, address) == 1 || inet_pton(AF_INET6, host, address) == 1;
}
