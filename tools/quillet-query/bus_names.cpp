#include "bus_names.h"

#include <charconv>

namespace
{

bool is_port(const std::string &text)
{
	unsigned port = 0;
	const char *end = text.data() + text.size();
	const auto [stop, failure] = std::from_chars(text.data(), end, port);
	return failure == std::errc() && stop == end && port >= 1 && port <= 65535;
}

bool is_host(const std::string &text)
{
	if (text.size() > 2 && text.front() == '[' && text.back() == ']')
		return true;
	return !text.empty() && text.find_first_of(":/@[] ") == std::string::npos;
}

} // namespace

bool check_broker_name(const std::string &text, std::string &error)
{
	const size_t colon = text.rfind(':');
	if (colon != std::string::npos && is_host(text.substr(0, colon)) && is_port(text.substr(colon + 1)))
		return true;
	error = "--broker \"" + text + "\" is not HOST:PORT, as in localhost:9133 or [::1]:9133";
	return false;
}

bool check_unit_name(const std::string &text, std::string &error)
{
	if (!text.empty() && text.find_first_of("/+#") == std::string::npos)
		return true;
	error = "--to \"" + text + "\" is not a unit address: it is empty, or holds '/', '+' or '#'";
	return false;
}
