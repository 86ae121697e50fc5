// Sets the agent's verbosity until the end of the scope.
#pragma once

#include "logger.h"

class verbosity_scope
{
public:
	explicit verbosity_scope(int level) : before(verbosity.exchange(level))
	{
	}
	~verbosity_scope()
	{
		verbosity = before;
	}
	verbosity_scope(const verbosity_scope &) = delete;
	verbosity_scope &operator=(const verbosity_scope &) = delete;

private:
	int before;
};
