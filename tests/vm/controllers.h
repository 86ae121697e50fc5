// CAN controllers that a test can get into trouble. The machine that runs these tests has two emulated ones on one bus,
// can0 and can1, as PCI devices; a serial adapter is played by the test itself.
#pragma once

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

inline void run(const std::string &command)
{
	ASSERT_EQ(system(command.c_str()), 0) << command;
}

inline void run_ip_link(const std::string &arguments)
{
	run("/bin/ip link " + arguments);
}

// A controller's interface, as the system's start-up would make it.
inline void bring_up_controller(const std::string &ifname)
{
	run_ip_link("set " + ifname + " type can bitrate 500000");
	run_ip_link("set " + ifname + " up");
}

// The address of an interface's PCI device, such as 0000:00:03.0.
inline std::string device_of(const std::string &ifname)
{
	char target[PATH_MAX];
	const ssize_t length = readlink(("/sys/class/net/" + ifname + "/device").c_str(), target, sizeof(target));
	const std::string path(target, length > 0 ? static_cast<size_t>(length) : 0);
	return path.substr(path.rfind('/') + 1);
}

// Takes the driver off its device, as when it is unplugged, or puts it back: the interface goes and comes.
inline void plug_in(const std::string &device, bool is_in)
{
	std::ofstream(std::string("/sys/bus/pci/drivers/kvaser_pci/") + (is_in ? "bind" : "unbind")) << device;
}

// A controller that can be kept from telling its driver that a frame is out, as one is that nobody acknowledges: its
// interrupts do not get through. The driver hands it no further frame, and those behind wait in the interface's queue.
class stalling_controller
{
public:
	explicit stalling_controller(const std::string &ifname)
			: descriptor_(::open(("/sys/bus/pci/devices/" + device_of(ifname) + "/config").c_str(), O_RDWR | O_CLOEXEC))
	{
		EXPECT_GE(descriptor_, 0) << ifname << " is no PCI device";
	}
	~stalling_controller()
	{
		go_on();
		close(descriptor_);
	}
	stalling_controller(const stalling_controller &) = delete;
	stalling_controller &operator=(const stalling_controller &) = delete;

	void stall()
	{
		set(1 << 10);
	}
	void go_on()
	{
		set(0);
	}

private:
	// The command register's bit "interrupt disable".
	void set(uint16_t bit)
	{
		constexpr off_t at = 4;
		uint16_t command = 0; // little-endian, as the machines are
		ASSERT_EQ(pread(descriptor_, &command, sizeof(command), at), 2);
		command = static_cast<uint16_t>((command & ~(1 << 10)) | bit);
		ASSERT_EQ(pwrite(descriptor_, &command, sizeof(command), at), 2);
	}

	int descriptor_;
};

// An adapter on a serial line that speaks the Lawicel protocol, and its interface: what it says of its controller's
// state the kernel makes the interface's state, by the same way as every driver. It swallows what is sent to it; nodes
// on the same interface hear each other all the same.
class serial_adapter
{
public:
	explicit serial_adapter(const std::string &ifname) : line_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
	{
		EXPECT_EQ(grantpt(line_), 0);
		EXPECT_EQ(unlockpt(line_), 0);
		driver_ = ::open(ptsname(line_), O_RDWR | O_NOCTTY | O_CLOEXEC);
		termios plain{};
		EXPECT_EQ(tcgetattr(driver_, &plain), 0);
		cfmakeraw(&plain);
		EXPECT_EQ(tcsetattr(driver_, TCSANOW, &plain), 0);
		constexpr int slcan_discipline = 17;
		EXPECT_EQ(ioctl(driver_, TIOCSETD, &slcan_discipline), 0) << "this test needs the kernel's module slcan";
		ifreq made{};
		EXPECT_EQ(ioctl(driver_, SIOCGIFNAME, made.ifr_name), 0);
		run_ip_link("set " + std::string(made.ifr_name) + " name " + ifname);
		run_ip_link("set " + ifname + " up");
		swallower_ = std::thread([this] { swallow(); });
	}
	// Unplugs it: the interface is gone.
	~serial_adapter()
	{
		close(driver_);
		is_over_ = true;
		swallower_.join();
		close(line_);
	}
	serial_adapter(const serial_adapter &) = delete;
	serial_adapter &operator=(const serial_adapter &) = delete;

	// A line of the protocol; "sb" and two counters of three digits is "the controller is bus-off".
	void says(const std::string &text) const
	{
		const std::string told = text + "\r";
		EXPECT_EQ(write(line_, told.data(), told.size()), static_cast<ssize_t>(told.size()));
	}

private:
	void swallow() const
	{
		while (!is_over_) {
			char text[4096];
			pollfd waiting{line_, POLLIN, 0};
			constexpr int look_again_ms = 50;
			if (poll(&waiting, 1, look_again_ms) > 0 && (waiting.revents & POLLIN) != 0)
				(void)!read(line_, text, sizeof(text)); // whatever it was
		}
	}

	int line_;        // the adapter's end
	int driver_ = -1; // the kernel's
	std::atomic<bool> is_over_ = false;
	std::thread swallower_;
};
