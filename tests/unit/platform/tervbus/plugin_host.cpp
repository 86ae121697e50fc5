#include "plugin_host.h"

#include <gtest/gtest.h>

#include <openssl/pem.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace
{

struct callback {
	int event;
	MOSQ_FUNC_generic_callback call;
	void *user;
};

std::vector<callback> callbacks;
std::vector<std::string> lines;
std::optional<int64_t> wall_s;
std::optional<int64_t> boot_s;

} // namespace

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *time);
int __wrap_clock_gettime(clockid_t clock, timespec *time);
time_t __real_time(time_t *seconds);
time_t __wrap_time(time_t *seconds);

int __wrap_clock_gettime(clockid_t clock, timespec *time)
{
	if (clock != CLOCK_BOOTTIME || !boot_s)
		return __real_clock_gettime(clock, time);
	*time = {static_cast<time_t>(*boot_s), 0};
	return 0;
}

time_t __wrap_time(time_t *seconds)
{
	return wall_s ? static_cast<time_t>(*wall_s) : __real_time(seconds);
}

int mosquitto_callback_register(
		mosquitto_plugin_id_t *, int event, MOSQ_FUNC_generic_callback call, const void *, void *user)
{
	callbacks.push_back({event, call, user});
	return MOSQ_ERR_SUCCESS;
}

int mosquitto_callback_unregister(mosquitto_plugin_id_t *, int event, MOSQ_FUNC_generic_callback call, const void *)
{
	std::erase_if(callbacks, [=](const callback &known) { return known.event == event && known.call == call; });
	return MOSQ_ERR_SUCCESS;
}

void mosquitto_log_printf(int, const char *format, ...)
{
	char line[4096];
	va_list arguments;
	va_start(arguments, format);
	vsnprintf(line, sizeof(line), format, arguments);
	va_end(arguments);
	lines.emplace_back(line);
}

const char *mosquitto_client_username(const mosquitto *client)
{
	return client->name.empty() ? nullptr : client->name.c_str();
}

const char *mosquitto_client_address(const mosquitto *client)
{
	return client->address.empty() ? nullptr : client->address.c_str();
}

int mosquitto_client_protocol_version(const mosquitto *client)
{
	return client->protocol;
}

// The caller's to free.
void *mosquitto_client_certificate(const mosquitto *client)
{
	X509 *certificate = client->certificate.get();
	if (certificate != nullptr)
		X509_up_ref(certificate);
	return certificate;
}

int mosquitto_broker_publish_copy(
		const char *, const char *, int, const void *, int, bool, mosquitto_property *properties)
{
	mosquitto_property_free_all(&properties);
	return MOSQ_ERR_SUCCESS;
}
}

plugin_host::~plugin_host()
{
	unload();
	wall_s.reset();
	boot_s.reset();
	lines.clear();
}

bool plugin_host::load(const std::vector<std::string> &options)
{
	std::vector<std::string> texts;
	for (const std::string &option : options) {
		texts.push_back(option.substr(0, option.find(' ')));
		texts.push_back(option.substr(option.find(' ') + 1));
	}
	std::vector<mosquitto_opt> list;
	for (size_t i = 0; i < texts.size(); i += 2)
		list.push_back({texts[i].data(), texts[i + 1].data()});
	loaded_ = mosquitto_plugin_init(nullptr, &user_, list.data(), static_cast<int>(list.size())) == MOSQ_ERR_SUCCESS;
	if (!loaded_)
		callbacks.clear();
	return loaded_;
}

void plugin_host::unload()
{
	if (loaded_)
		mosquitto_plugin_cleanup(user_, nullptr, 0);
	loaded_ = false;
	EXPECT_TRUE(callbacks.empty());
}

mosquitto *plugin_host::client(const std::string &name, const std::string &group)
{
	test_subject subject{.common_names = {name}};
	if (!group.empty())
		subject.units = {group};
	const std::string pem = test_ca_issue(ca_, subject).certificate_pem;
	const std::unique_ptr<BIO, decltype(&BIO_free)> text(
			BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
	mosquitto *made = without_certificate(name);
	made->certificate.reset(PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr));
	return made;
}

mosquitto *plugin_host::without_certificate(const std::string &name)
{
	clients_.push_back(std::make_unique<mosquitto>());
	clients_.back()->name = name;
	return clients_.back().get();
}

mosquitto *plugin_host::own_bridge(const std::string &name)
{
	mosquitto *made = without_certificate(name);
	made->address.clear();
	return made;
}

int plugin_host::ask(int event, void *data)
{
	for (const callback &known : std::vector(callbacks)) {
		const int verdict = known.event == event ? known.call(event, data, known.user) : MOSQ_ERR_SUCCESS;
		if (verdict != MOSQ_ERR_SUCCESS)
			return verdict;
	}
	return MOSQ_ERR_SUCCESS;
}

int plugin_host::acl(mosquitto *client, int access, const host_publish &publish)
{
	mosquitto_evt_acl_check check{};
	check.client = client;
	check.topic = publish.topic.c_str();
	check.access = access;
	check.payload = publish.payload.empty() ? nullptr : publish.payload.data();
	check.payloadlen = static_cast<uint32_t>(publish.payload.size());
	check.qos = 1;
	check.retain = publish.retained;
	return ask(MOSQ_EVT_ACL_CHECK, &check);
}

int plugin_host::message(mosquitto *client, const host_publish &publish)
{
	std::string topic = publish.topic;
	std::string payload = publish.payload;
	mosquitto_evt_message message{};
	message.client = client;
	message.topic = topic.data();
	message.payload = payload.empty() ? nullptr : payload.data();
	message.payloadlen = static_cast<uint32_t>(payload.size());
	message.properties = const_cast<mosquitto_property *>(publish.properties);
	message.qos = 1;
	message.retain = publish.retained;
	return ask(MOSQ_EVT_MESSAGE, &message);
}

int plugin_host::publish(mosquitto *client, const host_publish &publish)
{
	const int verdict = acl(client, MOSQ_ACL_WRITE, publish);
	return verdict == MOSQ_ERR_SUCCESS ? message(client, publish) : verdict;
}

void plugin_host::disconnect(mosquitto *client)
{
	mosquitto_evt_disconnect gone{};
	gone.client = client;
	ask(MOSQ_EVT_DISCONNECT, &gone);
	client->certificate.reset();
}

std::vector<std::string> plugin_host::said()
{
	return std::exchange(lines, {});
}

void plugin_host::set_wall_clock(int64_t seconds)
{
	wall_s = seconds;
}

void plugin_host::set_boot_clock(int64_t seconds)
{
	boot_s = seconds;
}
