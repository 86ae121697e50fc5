#include "keep_alive.h"

namespace
{

bool sends(const link_traffic &traffic)
{
	return traffic.waiting || traffic.unsent > 0;
}

void note(keep_alive *state, const link_traffic &traffic, int64_t now_ms)
{
	if (traffic.read != state->last.read)
		state->read_ms = now_ms;
	if (traffic.written != state->last.written)
		state->written_ms = now_ms;
	if (traffic.written - traffic.unsent != state->last.written - state->last.unsent || !sends(state->last))
		state->progress_ms = now_ms;
	state->last = traffic;
	state->look_ms = now_ms;
}

} // namespace

void keep_alive_begin(keep_alive *state, int64_t now_ms)
{
	*state = {};
	state->read_ms = now_ms;
	state->written_ms = now_ms;
	state->progress_ms = now_ms;
}

bool keep_alive_look_due(const keep_alive *state, int64_t now_ms)
{
	return now_ms - state->look_ms >= keep_alive_look_ms;
}

void keep_alive_agree(keep_alive *state, uint16_t seconds)
{
	if (seconds > 0)
		state->patience_ms = int64_t{seconds} * 1000;
}

keep_alive_need keep_alive_look(keep_alive *state, const link_traffic &traffic, int64_t now_ms)
{
	note(state, traffic, now_ms);
	const bool comes = now_ms - state->read_ms < state->patience_ms;
	const bool stuck = now_ms - state->progress_ms >= state->patience_ms + state->patience_ms / 2;
	// A ping would only wait behind what is being sent. What is stuck is waited for as long as a broker waits.
	if (sends(traffic))
		return stuck && !comes ? keep_alive_need::end : keep_alive_need::nothing;
	if (!comes)
		return keep_alive_need::housekeeping;
	if (now_ms - state->written_ms >= state->patience_ms + state->patience_ms / 5)
		return keep_alive_need::sign_of_life;
	return keep_alive_need::nothing;
}
