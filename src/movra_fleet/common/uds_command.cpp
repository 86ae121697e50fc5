#include "movra_fleet/common/uds_command.h"

#include <cstdlib>

void free_uds_command(uds_command *command)
{
	if (command == nullptr)
		return;
	free(command->request);
	free(command->error);
	free(command);
}
