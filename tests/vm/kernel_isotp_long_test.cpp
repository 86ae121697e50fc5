// The long transfers with the kernel's ISO-TP at the other end. They are as fast as the kernel is: on a paced bus its
// ISO-TP loses what the transmit queue has no room for.
#include "long_transfers.h"
#include "vcan_bench.h"

using kernel_isotp_long = vcan_bench;

// Linux 6.1 takes up to 8,200 bytes at once; later ones as many as their module is told.
TEST_F(kernel_isotp_long, carries_messages_at_every_block_size_and_separation)
{
	for (const long_transfer &one : long_transfers()) {
		SCOPED_TRACE(testing::Message() << one.length << " bytes, block size " << int(one.block_size) << ", STmin "
										<< int(one.st_min));
		open(one.block_size, one.st_min);
		const kernel_ecu ecu(one.block_size, one.st_min);
		exchange(ecu, one.length, one.length);
		transport_deinit(handle, 0);
	}
	handle = 0;
}
