// The records that travel between the agent's parts. All of them are calloc'd: zero is a safe state.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <type_traits>

#include <json-c/json.h>

#include "movrabus/movrabus.h"
#include "threadpool.h"
#include "tvtimer.h"
#include "udsutils.h"

// One raw UDS request of a job and, once it has run, its outcome. Linked in request order, owned by its job.
struct uds_command {
	uint8_t *request; // owned; the first byte is the SID, the second its sub-function
	uint8_t response[4096];
	uint32_t request_length;
	uint32_t response_length;
	char requested_time[32]; // local time, "%Y-%m-%dT%H:%M:%SZ"; empty when never sent
	char responded_time[32]; // the same, of the last successful receive
	char *error;             // owned outcome text; NULL when the command was never reached
	uint32_t timer;          // seconds to pause after this command
	uds_command *next;
};

struct dtc_receiver;

// The CAN / ISO-TP settings of one ECU of a job, with its channel. Owned by its job.
struct transport_cfg {
	uds_transport_params params; // the block that the transport library is given; kind is always 0
	char *phy_req_id_text;       // owned: the request identifier as the request gave it; the label of this ECU
	tvtimer tester_present_timer;
	transport_cfg *next;
	int32_t handle;         // of the channel; 0 until transport_init
	dtc_receiver *receiver; // of a DTC request under way; NULL before it started, and after it
	uint8_t *answer;        // owned: what the ECU answered to the DTC request, with a zero byte behind it; or NULL
	uint32_t answer_length; // without that zero byte
};

// A CAN port for functional requests, one per distinct functional address of a job for all ECUs. Owned by its job.
struct can_port {
	uds_transport_params params; // kind and interface name of its ECU; phy_req_id is the port id, all else 0
	int32_t handle;              // -1 until opened
	uint32_t id;                 // the port id, the key of the list
	can_port *next;
};

// How the key for a seed is computed. Owned by its job.
struct security_access_config {
	char *location; // owned: the directory of the key plug-in
	char *script;   // owned: handed to the plug-in
	uint32_t level; // its low 8 bits are handed to the plug-in
};

enum version_kinds : int32_t {
	VERSION_NONE = 0,
	VERSION_UDS = 1,
	VERSION_J1939 = 2,
};

inline constexpr int32_t transport_type_can = 0;

// One accepted request. The dispatcher owns it until it is queued, then the worker does.
struct diag_job {
	uint8_t sid;              // service of a uds request, else 0
	uint32_t dtc_subfunction; // ReadDTCInformation sub-function
	uint8_t *dtc_data;        // owned: the request bytes after the sub-function
	uint32_t dtc_data_length;
	char *reply_id;             // owned
	char *source_address;       // owned: the requester's unit address, or NULL
	char *target_address;       // owned: the ECU's address, or "-1" for all of the request
	int32_t version_kind;       // one of version_kinds
	json_object *version_query; // owned
	transport_cfg *transport;   // owned list, in request order
	int32_t transport_type;
	can_port *can_ports;              // owned list
	uds_command *commands;            // owned list, in request order
	uint32_t command_count;           // length of commands when the job was queued
	uint32_t memory;                  // job_memory when it was queued
	security_access_config *security; // owned, or NULL
	diag_job *next;                   // in pending_jobs
};

// The agent. Made by agent_init, released by agent_deinit; handed to the message callback and to every job.
struct agent_ctx {
	mobus_connection *bus;   // guarded by bus_lock once requests flow; NULL again when the agent stops
	threadpool *pool;        // set before the bus client connects
	tvtimer_service *timers; // set before the bus client connects
	diag_job *pending_jobs;  // oldest first, the running job at the head; guarded by pending_lock

	uint32_t pending_job_count;     // guarded by pending_lock
	uint32_t pending_command_count; // guarded by pending_lock: sum of the pending jobs' command_count
	uint32_t pending_memory;        // guarded by pending_lock: sum of the pending jobs' memory
	pthread_mutex_t pending_lock;
	pthread_mutex_t bus_lock;  // held for the length of a send
	pthread_mutex_t stop_lock; // guards all below
	pthread_cond_t stop_wake;  // stopping is 1, the running job has left its channel, or what it awaits is done
	int32_t stopping;
	int32_t channel_state; // of the running job's channel: running_channel.cpp
	int32_t channel_handle;
	int32_t channel_kind;
};

static_assert(std::is_trivially_copyable_v<uds_command>);
static_assert(std::is_trivially_copyable_v<transport_cfg>);
static_assert(std::is_trivially_copyable_v<can_port>);
static_assert(std::is_trivially_copyable_v<security_access_config>);
static_assert(std::is_trivially_copyable_v<diag_job>);
static_assert(std::is_trivially_copyable_v<agent_ctx>);
