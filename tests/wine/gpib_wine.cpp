// The virtual scanner behind GPIBDLL.dll when it runs under Wine: the
// library is built from the same sim/ sources as the host's board library,
// and this part puts one virtual scanner on its bus when the library loads.
// TAMRIX_GPIB_SCANNER="MODEL:ADDRESS" chooses it (default "2:5", a KS-620 at
// address 5); model 7 is the polled scanner, the others speak the block
// dialect. The scanner follows the wire rules its class header states.
#include "block_scanner.h"
#include "gpib_bus.h"
#include "polled_scanner.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace
{

struct BusSetup {
    BusSetup()
    {
        int model = 2, address = 5;
        if (const char *spec = std::getenv("TAMRIX_GPIB_SCANNER"))
            std::sscanf(spec, "%d:%d", &model, &address);
        std::shared_ptr<sim::GpibDevice> device;
        if (model == 7)
            device = std::make_shared<sim::PolledScanner>();
        else
            device = sim::MakeGpibByteDevice(std::make_shared<sim::BlockScanner>(model, 5));
        sim::AttachGpibDevice(address, device);
    }
};

const BusSetup g_busSetup;

} // namespace
