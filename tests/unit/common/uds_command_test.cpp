#include "movra_fleet/common/uds_command.h"

#include <gtest/gtest.h>

#include <cstdlib>

TEST(free_uds_command, takes_null_and_half_built_records)
{
	free_uds_command(nullptr);
	free_uds_command(static_cast<uds_command *>(calloc(1, sizeof(uds_command))));
}
