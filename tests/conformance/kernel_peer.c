/* isotp_kernel_peer INTERFACE: plays libudsutils against the kernel's ISO-TP sockets, each as tester and as ECU, on a
 * SocketCAN interface, and prints a line for each row that fails and a closing line "N passed, N failed".
 *
 * One thread does: the kernel receives, answers with flow controls and sends its consecutive frames on its own, while
 * our library works inside its calls. */
#include <errno.h>
#include <linux/can.h>
#include <linux/can/isotp.h>
#include <net/if.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "udsutils.h"

enum { pdu_max = 8191, patience_ms = 3000, padding = 0xCC };

struct peer_row {
	uint32_t length;
	uint8_t block_size;
	uint8_t st_min;
};

static const struct peer_row rows[] = {
#define PEER_ROW(length, block_size, st_min, tier) {length, block_size, st_min},
#include "peer_rows.def"
#undef PEER_ROW
};

struct peers {
	const char *ifname;
	uint32_t request_id;
	uint32_t response_id;
	int handle; /* ours */
	int kernel; /* theirs */
};

static int passed;
static int failed;

static void tell(const char *row, const char *wrong)
{
	if (wrong == NULL) {
		passed++;
		return;
	}
	failed++;
	printf("FAILED: %s: %s\n", row, wrong);
}

static void fill_pdu(uint8_t *pdu, uint32_t length)
{
	for (uint32_t i = 0; i < length; i++)
		pdu[i] = (uint8_t)((i * 31 + i / 251 + length) % 251);
}

static int64_t now_ms(void)
{
	struct timespec now;
	(void)clock_gettime(CLOCK_MONOTONIC, &now); /* cannot fail with this clock */
	return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static canid_t kernel_id(uint32_t id)
{
	return id > CAN_SFF_MASK ? id | CAN_EFF_FLAG : id;
}

/* A socket of the kernel's that pads as we do and insists on our padding. -1 with errno. */
static int open_kernel(const char *ifname, uint32_t tx_id, uint32_t rx_id, const struct peer_row *row, uint32_t flags)
{
	const int kernel = socket(PF_CAN, SOCK_DGRAM | SOCK_CLOEXEC, CAN_ISOTP);
	if (kernel < 0)
		return -1;
	struct can_isotp_options options = {0};
	options.flags =
			flags | CAN_ISOTP_TX_PADDING | CAN_ISOTP_RX_PADDING | CAN_ISOTP_CHK_PAD_LEN | CAN_ISOTP_CHK_PAD_DATA;
	options.txpad_content = padding;
	options.rxpad_content = padding;
	struct can_isotp_fc_options flow = {0};
	flow.bs = row->block_size;
	flow.stmin = row->st_min;
	flow.wftmax = 16;
	struct timeval patience = {patience_ms / 1000, 0};
	struct sockaddr_can address = {0};
	address.can_family = AF_CAN;
	address.can_ifindex = (int)if_nametoindex(ifname);
	address.can_addr.tp.tx_id = kernel_id(tx_id);
	address.can_addr.tp.rx_id = kernel_id(rx_id);
	if (setsockopt(kernel, SOL_CAN_ISOTP, CAN_ISOTP_OPTS, &options, sizeof(options)) == 0 &&
			setsockopt(kernel, SOL_CAN_ISOTP, CAN_ISOTP_RECV_FC, &flow, sizeof(flow)) == 0 &&
			setsockopt(kernel, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) == 0 &&
			bind(kernel, (struct sockaddr *)&address, sizeof(address)) == 0)
		return kernel;
	const int error = errno;
	close(kernel);
	errno = error;
	return -1;
}

static int open_ours(const char *ifname, uint32_t tx_id, uint32_t rx_id, const struct peer_row *row)
{
	uds_transport_params params = {0};
	params.phy_req_id = tx_id;
	params.phy_resp_id = rx_id;
	params.bsize = row->block_size;
	params.st_min = row->st_min;
	(void)snprintf(params.ifname, sizeof(params.ifname), "%s", ifname); /* a longer one exists nowhere */
	return transport_init(0, &params);
}

static void close_peers(struct peers *peers)
{
	if (peers->kernel >= 0)
		close(peers->kernel);
	if (peers->handle > 0)
		(void)transport_deinit(peers->handle, 0); /* a handle of ours */
}

static const char *open_peers(struct peers *peers, uint32_t our_id, uint32_t their_id, const struct peer_row *row)
{
	peers->handle = open_ours(peers->ifname, our_id, their_id, row);
	peers->kernel = open_kernel(peers->ifname, their_id, our_id, row, 0);
	if (peers->kernel < 0)
		return strerror(errno);
	return peers->handle > 0 ? NULL : "transport_init";
}

static const char *check_pdu(const uint8_t *received, size_t count, uint32_t length)
{
	static uint8_t expected[pdu_max];
	fill_pdu(expected, length);
	if (count != length)
		return "another length came";
	return memcmp(received, expected, length) == 0 ? NULL : "other bytes came";
}

static const char *ours_to_kernel(const struct peers *peers, uint32_t length)
{
	static uint8_t pdu[pdu_max + 1];
	fill_pdu(pdu, length);
	if (send_diag_command(peers->handle, pdu, length, 0) != 0)
		return "our send failed";
	const ssize_t count = read(peers->kernel, pdu, sizeof(pdu));
	return count < 0 ? "the kernel has received nothing" : check_pdu(pdu, (size_t)count, length);
}

static const char *kernel_to_ours(const struct peers *peers, uint32_t length)
{
	static uint8_t pdu[pdu_max + 1];
	fill_pdu(pdu, length);
	if (write(peers->kernel, pdu, length) != (ssize_t)length)
		return "the kernel does not send";
	uint32_t count = pdu_max;
	if (recv_diag_command(peers->handle, pdu, &count, patience_ms, 0) != 0)
		return "our receive failed";
	return check_pdu(pdu, count, length);
}

typedef const char *direction(const struct peers *peers, uint32_t length);

static const char *play_exchange(struct peers *peers, const struct peer_row *row, direction *request, direction *answer)
{
	const char *wrong = open_peers(peers, peers->request_id, peers->response_id, row);
	if (wrong == NULL)
		wrong = request(peers, row->length);
	if (wrong == NULL)
		wrong = answer(peers, row->length);
	close_peers(peers);
	return wrong;
}

static void play_rows(const char *ifname, uint32_t request_id, uint32_t response_id)
{
	for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); i++) {
		struct peers peers = {ifname, request_id, response_id, 0, -1};
		struct peers changed = {ifname, response_id, request_id, 0, -1};
		char name[128];
		const int length = snprintf(name, sizeof(name), "%u bytes, block size %u, STmin %02X, identifiers %X and %X, ",
				rows[i].length, rows[i].block_size, rows[i].st_min, request_id, response_id);
		char *who = name + length;
		const size_t room = sizeof(name) - (size_t)length;
		(void)snprintf(who, room, "the kernel as ECU"); /* has room */
		tell(name, play_exchange(&peers, &rows[i], ours_to_kernel, kernel_to_ours));
		(void)snprintf(who, room, "the kernel as tester");
		tell(name, play_exchange(&changed, &rows[i], kernel_to_ours, ours_to_kernel));
	}
}

/* A functional request: single frames to an identifier that nobody answers on. */

static const char *functional_to_kernel(const char *ifname, uint32_t all_id, uint32_t answer_id, uint32_t length)
{
	static const struct peer_row plain = {0, 0, 0};
	struct peers peers = {ifname, all_id, answer_id, open_ours(ifname, all_id, 0, &plain),
			open_kernel(ifname, answer_id, all_id, &plain, 0)};
	const bool is_open = peers.handle > 0 && peers.kernel >= 0;
	const char *wrong = is_open ? ours_to_kernel(&peers, length) : "cannot be opened";
	uint8_t eight[8] = {0};
	if (wrong == NULL && send_diag_command(peers.handle, eight, sizeof(eight), 0) >= 0)
		wrong = "8 bytes were sent";
	close_peers(&peers);
	return wrong;
}

static const char *functional_to_ours(const char *ifname, uint32_t all_id, uint32_t answer_id, uint32_t length)
{
	static const struct peer_row plain = {0, 0, 0};
	struct peers peers = {ifname, all_id, answer_id, open_ours(ifname, answer_id, all_id, &plain),
			open_kernel(ifname, all_id, answer_id, &plain, CAN_ISOTP_SF_BROADCAST)};
	const bool is_open = peers.handle > 0 && peers.kernel >= 0;
	const char *wrong = is_open ? kernel_to_ours(&peers, length) : "cannot be opened";
	close_peers(&peers);
	return wrong;
}

static void play_functional(const char *ifname, uint32_t all_id, uint32_t answer_id)
{
	for (uint32_t length = 1; length <= 7; length++) {
		char name[96];
		(void)snprintf(name, sizeof(name), "functional, %u bytes, identifier %X, ", length, all_id);
		tell(strcat(name, "the kernel as ECU"), functional_to_kernel(ifname, all_id, answer_id, length));
		(void)snprintf(name, sizeof(name), "functional, %u bytes, identifier %X, ", length, all_id);
		tell(strcat(name, "the kernel as tester"), functional_to_ours(ifname, all_id, answer_id, length));
	}
}

/* Failures: each side is left alone by the other, and then they understand each other again. */

static const char *check_ms(int64_t since_ms, int64_t expected_ms)
{
	const int64_t took_ms = now_ms() - since_ms;
	return took_ms >= expected_ms - 1 && took_ms < expected_ms + 900 ? NULL : "not after its time";
}

static const char *kernel_is_away(struct peers *peers, const struct peer_row *row)
{
	uint8_t pdu[62] = {0};
	const int64_t since_ms = now_ms();
	close(peers->kernel);
	if (send_diag_command(peers->handle, pdu, sizeof(pdu), 0) >= 0)
		return "sent without a receiver";
	const char *wrong = check_ms(since_ms, 1000);
	peers->kernel = open_kernel(peers->ifname, peers->response_id, peers->request_id, row, 0);
	return peers->kernel < 0 ? strerror(errno) : wrong;
}

static const char *we_are_silent(struct peers *peers, const struct peer_row *row)
{
	(void)row;
	uint8_t pdu[62] = {0};
	if (write(peers->kernel, pdu, sizeof(pdu)) != (ssize_t)sizeof(pdu))
		return "the kernel does not send";
	(void)read(peers->kernel, pdu,
			sizeof(pdu)); /* waits until the kernel has given its send up, or its patience is over */
	return NULL;
}

static const char *too_long_for_us(struct peers *peers, const struct peer_row *row)
{
	(void)row;
	static uint8_t pdu[pdu_max + 1];
	uint32_t count = pdu_max;
	const int64_t since_ms = now_ms();
	if (write(peers->kernel, pdu, sizeof(pdu)) != (ssize_t)sizeof(pdu))
		return "the kernel does not send";
	if (recv_diag_command(peers->handle, pdu, &count, patience_ms, 0) >= 0)
		return "received more than there is room for";
	const char *wrong = check_ms(since_ms, 0);
	const bool is_told = read(peers->kernel, pdu, sizeof(pdu)) < 0 && errno == EMSGSIZE;
	return is_told ? wrong : "the kernel was not told of the overflow";
}

static const char *no_answer(struct peers *peers, const struct peer_row *row)
{
	(void)row;
	uint8_t pdu[62];
	uint32_t count = sizeof(pdu);
	const int64_t since_ms = now_ms();
	if (recv_diag_command(peers->handle, pdu, &count, 300, 0) >= 0)
		return "received without a sender";
	return check_ms(since_ms, 300);
}

static void play_failures(const char *ifname)
{
	static const struct peer_row plain = {62, 0, 0};
	static const struct {
		const char *name;
		const char *(*play)(struct peers *peers, const struct peer_row *row);
	} failures[] = {{"a request that the kernel does not take", kernel_is_away},
			{"an answer of the kernel's that we do not take", we_are_silent},
			{"an answer of the kernel's that we have no room for", too_long_for_us},
			{"no answer of the kernel's", no_answer}};
	for (size_t i = 0; i < sizeof(failures) / sizeof(failures[0]); i++) {
		struct peers peers = {ifname, 0x7E0, 0x7E8, 0, -1};
		const char *wrong = open_peers(&peers, peers.request_id, peers.response_id, &plain);
		if (wrong == NULL)
			wrong = failures[i].play(&peers, &plain);
		if (wrong == NULL)
			wrong = ours_to_kernel(&peers, plain.length);
		if (wrong == NULL)
			wrong = kernel_to_ours(&peers, plain.length);
		close_peers(&peers);
		tell(failures[i].name, wrong);
	}
}

int main(int argc, char **argv)
{
	if (argc != 2) {
		fprintf(stderr, "usage: %s INTERFACE\n", argv[0]);
		return 2;
	}
	movra_uds_util_debug_init(0);
	play_rows(argv[1], 0x7E0, 0x7E8);
	play_rows(argv[1], 0x18DA10F1, 0x18DAF110);
	play_functional(argv[1], 0x7DF, 0x7E8);
	play_functional(argv[1], 0x18DB33F1, 0x18DAF110);
	play_failures(argv[1]);
	printf("%d passed, %d failed\n", passed, failed);
	return failed == 0 ? 0 : 1;
}
