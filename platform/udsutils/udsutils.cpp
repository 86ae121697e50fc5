// The C entry points. Nothing escapes from here but results, and running out of memory is one of the failures.
#pragma GCC visibility push(default)
#include "udsutils.h"
#pragma GCC visibility pop

#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "can_link.h"
#include "canserver_lines.h"
#include "channel_driver.h"
#include "handle_table.h"
#include "raw_port.h"
#include "uds_log.h"

static constexpr int default_port_wait_ms = 5000;

static bool is_can(int kind)
{
	return kind == 0 || kind == 1;
}

static bool is_interface(const char *ifname, int kind)
{
	if (ifname == nullptr || !is_can(kind))
		return false;
	if (canserver_name_is_valid(ifname))
		return true;
	uds_log(UDS_LOG_ERR, "not the name of a CAN interface");
	return false;
}

// QUILLET_CAN_PADDING: one byte as hexadecimal digits.
static uint8_t padding(void)
{
	const char *text = getenv("QUILLET_CAN_PADDING");
	if (text == nullptr || *text == '\0')
		return isotp_default_padding;
	char *end = nullptr;
	const unsigned long value = strtoul(text, &end, 16);
	if (*end == '\0' && value <= 0xFF)
		return static_cast<uint8_t>(value);
	uds_log(UDS_LOG_WARN, "QUILLET_CAN_PADDING must be a byte such as CC, not \"%s\"", text);
	return isotp_default_padding;
}

// QUILLET_CAN_WAIT_MS: how long a raw port waits for a frame.
static int port_wait_ms(void)
{
	const char *text = getenv("QUILLET_CAN_WAIT_MS");
	if (text == nullptr || *text == '\0')
		return default_port_wait_ms;
	char *end = nullptr;
	const long value = strtol(text, &end, 10);
	if (*end == '\0' && value >= 0 && value <= 3600000)
		return static_cast<int>(value);
	uds_log(UDS_LOG_WARN, "QUILLET_CAN_WAIT_MS must be a number of milliseconds, not \"%s\"", text);
	return default_port_wait_ms;
}

int transport_interface_availibility(const char *ifname, int kind)
{
	return is_interface(ifname, kind) ? can_link_exists(ifname) : 0;
}

int transport_interface_status(const char *ifname, int kind)
{
	return is_interface(ifname, kind) ? can_link_is_up(ifname) : 0;
}

static bool is_usable(int kind, const uds_transport_params *params)
{
	if (params == nullptr || !is_can(kind) || !is_can(params->kind))
		return false;
	if (memchr(params->ifname, '\0', sizeof(params->ifname)) == nullptr || !is_interface(params->ifname, kind))
		return false;
	return params->phy_req_id <= bus_id_max && params->phy_resp_id <= bus_id_max;
}

int transport_init(int kind, const uds_transport_params *params)
{
	if (!is_usable(kind, params)) {
		uds_log(UDS_LOG_ERR, "the settings of a channel cannot be used");
		return -1;
	}
	isotp_settings settings = isotp_default_settings(params->phy_req_id, params->phy_resp_id);
	settings.block_size = params->bsize;
	settings.st_min = params->st_min;
	settings.padding = padding();

	can_link link{};
	const can_link_filter filter = params->phy_resp_id == 0 ? CAN_LINK_TAKES_NONE : CAN_LINK_TAKES_ONE;
	if (can_link_open(&link, params->ifname, filter, params->phy_resp_id) != 0)
		return -1;
	channel_driver *driver = channel_driver_new(&settings, link);
	return driver != nullptr ? handle_table_add(driver) : -1;
}

int transport_deinit(int handle, int kind)
{
	return is_can(kind) ? handle_table_end(handle) : -1;
}

int send_diag_command(int handle, const uint8_t *request, uint32_t length, int kind)
{
	channel_driver *driver = is_can(kind) && request != nullptr ? handle_table_enter(handle) : nullptr;
	if (driver == nullptr)
		return -1;
	const int result = channel_driver_send(driver, request, length);
	handle_table_leave(handle);
	return result;
}

int recv_diag_command(int handle, uint8_t *response, uint32_t *length, int timeout_ms, int kind)
{
	const bool is_usable_call = is_can(kind) && response != nullptr && length != nullptr;
	channel_driver *driver = is_usable_call ? handle_table_enter(handle) : nullptr;
	if (driver == nullptr)
		return -1;
	size_t received = 0;
	const int result = channel_driver_receive(driver, response, *length, &received, timeout_ms);
	handle_table_leave(handle);
	if (result == 0)
		*length = static_cast<uint32_t>(received);
	return result;
}

int open_can_port(const char *ifname, uint32_t can_id)
{
	if (!is_interface(ifname, 0))
		return -1;
	if (can_id > bus_id_max) {
		uds_log(UDS_LOG_ERR, "a CAN port cannot be made: %" PRIX32 " is no identifier", can_id);
		return -1;
	}
	return raw_port_open(ifname, can_id);
}

int receive_can_frame(int descriptor, uint8_t *data, uint8_t *length)
{
	bus_frame frame{};
	if (data == nullptr || length == nullptr || raw_port_receive(descriptor, &frame, port_wait_ms()) != 0)
		return -1;
	uds_log_frame("received", &frame);
	memcpy(data, frame.data, frame.length);
	*length = frame.length;
	return 0;
}

void movra_uds_util_debug_init(int verbosity)
{
	uds_log_set_verbosity(verbosity);
}
