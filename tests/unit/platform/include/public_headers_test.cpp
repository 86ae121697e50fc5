// That this program links is half of the test: the headers compile alone as C11 and as C++11.
#include "layout.h"

#include <type_traits>

#include <gtest/gtest.h>

#include "ecusecalgo.h"
#include "tervbus.h"
#include "udsutils.h"

namespace
{

void expect_layout(const layout_row *rows, size_t count)
{
	for (size_t index = 0; index < count; ++index) {
		SCOPED_TRACE(rows[index].name);
		EXPECT_EQ(rows[index].actual, sizeof(void *) == 4 ? rows[index].on_32_bits : rows[index].on_64_bits);
	}
}

}

TEST(public_headers, lay_the_records_out_as_binaries_expect_them_in_c)
{
	expect_layout(layout_in_c, layout_rows_in_c);
}

TEST(public_headers, lay_the_records_out_as_binaries_expect_them_in_cxx)
{
	expect_layout(layout_in_cxx, layout_rows_in_cxx);
	EXPECT_EQ(layout_rows_in_c, layout_rows_in_cxx);
}

// The types of the operations: a change of one does not compile.
template <typename wanted, typename declared>
constexpr bool same = std::is_same_v<wanted *, declared>;

static_assert(same<int(tervbus_setup *), decltype(&tervbus_init_ll)>);
static_assert(same<int(), decltype(&tervbus_fini_ll)>);
static_assert(same<int(tervbus_client *, const char *), decltype(&tervbus_init_client)>);
static_assert(same<int(tervbus_client *), decltype(&tervbus_stop_client)>);
static_assert(same<int(tervbus_identity *, address_entry **, int, int), decltype(&tervbus_get_identity_data)>);
static_assert(same<int(address_entry **, int, const void *), decltype(&tervbus_chain_address)>);
static_assert(same<int(address_entry *, int), decltype(&tervbus_free_address)>);
static_assert(same<int(tervbus_client *, tervbus_message *, int), decltype(&tervbus_send_message)>);

static_assert(same<int(const char *, int), decltype(&transport_interface_availibility)>);
static_assert(same<int(const char *, int), decltype(&transport_interface_status)>);
static_assert(same<int(int, const uds_transport_params *), decltype(&transport_init)>);
static_assert(same<int(int, int), decltype(&transport_deinit)>);
static_assert(same<int(int, const uint8_t *, uint32_t, int), decltype(&send_diag_command)>);
static_assert(same<int(int, uint8_t *, uint32_t *, int, int), decltype(&recv_diag_command)>);
static_assert(same<int(const char *, uint32_t), decltype(&open_can_port)>);
static_assert(same<int(int, uint8_t *, uint8_t *), decltype(&receive_can_frame)>);
static_assert(same<void(int), decltype(&movra_uds_util_debug_init)>);

static_assert(same<uint32_t(uint32_t, const char *, uint8_t), decltype(&esr_calculate_key)>);
