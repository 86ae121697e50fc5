#include "bus_names.h"

#include "host_port.h"

bool check_broker_name(const std::string &text, std::string &error)
{
	std::string host;
	uint16_t port = 0;
	if (parse_host_port(text, host, port))
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
