#include "conditions.h"

#include <algorithm>

bool condition_changes(condition_filter *filter, int condition)
{
	if (filter->last == condition)
		return false;
	filter->last = condition;
	return true;
}

int64_t backoff_take(backoff *wait, uint32_t random)
{
	const int64_t step = wait->next_ms;
	wait->next_ms = std::min(step * 2, backoff_last_ms);
	return step / 2 + static_cast<int64_t>(random) % (step / 2 + 1);
}

void backoff_note_run(backoff *wait, int64_t ran_ms, bool thrown_out)
{
	if (ran_ms >= backoff_stable_ms)
		wait->next_ms = backoff_first_ms;
	if (thrown_out)
		wait->next_ms = std::max(wait->next_ms, backoff_thrown_out_ms);
}
