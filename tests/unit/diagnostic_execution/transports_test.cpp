#include "movra_fleet/diagnostic_execution/transports.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "support/connected_agent.h"
#include "support/fail_nth.h"

namespace
{

class transports : public testing::Test
{
protected:
	transports()
	{
		cfg.params.phy_req_id = 0x7E0;
		strcpy(cfg.params.ifname, "can0");
		cfg.params.bsize = 8;
		cfg.params.st_min = 5;
	}
	~transports() override
	{
		free_job_contents(&job);
	}

	diag_job job = {};
	transport_cfg cfg = {};
};

}

TEST_F(transports, give_the_block_of_a_known_kind_only)
{
	const struct {
		int32_t kind;
		bool given;
	} rows[] = {{0, true}, {1, true}, {2, false}, {-1, false}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.kind);
		cfg.params.kind = row.kind;
		EXPECT_EQ(transport_params(&cfg), row.given ? &cfg.params : nullptr);
	}
	EXPECT_EQ(transport_params(nullptr), nullptr);
}

TEST_F(transports, register_a_port_with_kind_and_interface_of_the_ecu)
{
	cfg.params.kind = 1;
	ASSERT_EQ(add_can_port(&job, 0x7DF, &cfg), 0);

	const can_port *port = job.can_ports;
	ASSERT_NE(port, nullptr);
	EXPECT_EQ(port->id, 0x7DFu);
	EXPECT_EQ(port->handle, -1);
	EXPECT_EQ(port->params.kind, 1);
	EXPECT_EQ(port->params.phy_req_id, 0x7DFu);
	EXPECT_EQ(port->params.phy_resp_id, 0u);
	EXPECT_STREQ(port->params.ifname, "can0");
	EXPECT_EQ(port->params.bsize, 0);
	EXPECT_EQ(port->params.st_min, 0);
	EXPECT_EQ(port->next, nullptr);
}

TEST_F(transports, keep_one_port_for_each_identifier_in_order)
{
	for (uint32_t id : {0x7DFu, 0x700u, 0x7DFu, 0x18DB33F1u, 0x700u})
		EXPECT_EQ(add_can_port(&job, id, &cfg), 0);

	const can_port *port = job.can_ports;
	for (uint32_t id : {0x7DFu, 0x700u, 0x18DB33F1u}) {
		ASSERT_NE(port, nullptr);
		EXPECT_EQ(port->id, id);
		port = port->next;
	}
	EXPECT_EQ(port, nullptr);
}

TEST_F(transports, refuse_a_port_of_an_unknown_kind)
{
	cfg.params.kind = 2;
	EXPECT_EQ(add_can_port(&job, 0x7DF, &cfg), -1);
	EXPECT_EQ(job.can_ports, nullptr);
}

TEST_F(transports, find_a_registered_port_whatever_the_kind)
{
	ASSERT_EQ(add_can_port(&job, 0x7DF, &cfg), 0);
	cfg.params.kind = 2;
	EXPECT_EQ(add_can_port(&job, 0x7DF, &cfg), 0);
}

TEST_F(transports, keep_the_longest_interface_name_whole)
{
	memset(cfg.params.ifname, 'n', sizeof cfg.params.ifname - 1);
	ASSERT_EQ(add_can_port(&job, 0x7DF, &cfg), 0);
	EXPECT_STREQ(job.can_ports->params.ifname, std::string(127, 'n').c_str());
}

TEST_F(transports, refuse_a_port_without_memory)
{
	fail_nth failure("calloc", 1, ENOMEM, fail_nth::this_thread);
	EXPECT_EQ(add_can_port(&job, 0x7DF, &cfg), -1);
	EXPECT_EQ(job.can_ports, nullptr);
}

TEST_F(transports, free_a_record_being_built_and_clear_its_pointer)
{
	transport_cfg *built = add_test_transport(&job);
	job.transport = nullptr;
	free_transport_cfg(&built);
	EXPECT_EQ(built, nullptr);

	free_transport_cfg(&built);
	EXPECT_EQ(built, nullptr);

	built = static_cast<transport_cfg *>(calloc(1, sizeof(transport_cfg))); // without its text
	free_transport_cfg(&built);
	EXPECT_EQ(built, nullptr);
}
