// A node of our transport library for the peer tests, steered line by line over standard input and output:
//	init <interface> <request id> <response id> <block size> <STmin>   -> handle <n>
//	send <handle> <bytes>                                              -> sent
//	receive <handle> <capacity> <timeout ms>                           -> pdu <bytes>
//	deinit <handle>                                                    -> closed
// Identifiers, STmin and bytes are hexadecimal. A call that fails answers "failed <its result>", a line that is not
// understood "unknown". Ends with its input. It uses the library as any other program does: through its C entry points.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "udsutils.h"

namespace
{

std::string to_hex(const std::vector<uint8_t> &bytes)
{
	static const char digits[] = "0123456789abcdef";
	std::string text;
	for (const uint8_t byte : bytes) {
		text += digits[byte >> 4];
		text += digits[byte & 0x0F];
	}
	return text;
}

std::vector<uint8_t> from_hex(const std::string &text)
{
	std::vector<uint8_t> bytes;
	for (size_t at = 0; at + 1 < text.size(); at += 2)
		bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
	return bytes;
}

std::string failed(int result)
{
	return "failed " + std::to_string(result);
}

std::string init(std::istringstream &arguments)
{
	std::string name;
	uint32_t request_id = 0;
	uint32_t response_id = 0;
	uint32_t block_size = 0;
	uint32_t st_min = 0;
	arguments >> name >> std::hex >> request_id >> response_id >> std::dec >> block_size >> std::hex >> st_min;
	uds_transport_params params = {};
	if (!arguments || name.size() >= sizeof(params.ifname))
		return "unknown";
	memcpy(params.ifname, name.c_str(), name.size() + 1);
	params.phy_req_id = request_id;
	params.phy_resp_id = response_id;
	params.bsize = static_cast<uint8_t>(block_size);
	params.st_min = static_cast<uint8_t>(st_min);
	const int handle = transport_init(0, &params);
	return handle > 0 ? "handle " + std::to_string(handle) : failed(handle);
}

std::string send(std::istringstream &arguments)
{
	int handle = 0;
	std::string text;
	arguments >> handle >> text;
	const std::vector<uint8_t> bytes = from_hex(text);
	const int result = send_diag_command(handle, bytes.data(), static_cast<uint32_t>(bytes.size()), 0);
	return result == 0 ? "sent" : failed(result);
}

std::string receive(std::istringstream &arguments)
{
	int handle = 0;
	uint32_t length = 0;
	int timeout_ms = 0;
	arguments >> handle >> length >> timeout_ms;
	std::vector<uint8_t> bytes(length);
	const int result = recv_diag_command(handle, bytes.data(), &length, timeout_ms, 0);
	if (result != 0)
		return failed(result);
	bytes.resize(length);
	return "pdu " + to_hex(bytes);
}

std::string deinit(std::istringstream &arguments)
{
	int handle = 0;
	arguments >> handle;
	const int result = transport_deinit(handle, 0);
	return result == 0 ? "closed" : failed(result);
}

std::string answer(const std::string &line)
{
	static const struct {
		const char *command;
		std::string (*run)(std::istringstream &arguments);
	} commands[] = {{"init", init}, {"send", send}, {"receive", receive}, {"deinit", deinit}};
	std::istringstream arguments(line);
	std::string wanted;
	arguments >> wanted;
	for (const auto &row : commands)
		if (wanted == row.command)
			return row.run(arguments);
	return "unknown";
}

} // namespace

int main()
{
	std::string line;
	while (std::getline(std::cin, line))
		std::cout << answer(line) << std::endl;
	return 0;
}
