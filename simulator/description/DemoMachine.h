#pragma once
/// @file
/// The machine that is there when nobody describes one.

namespace Simulation {

constexpr char DEMO_MACHINE[] = R"({
  "controllers": [
    {"name": "sata", "pci": "0000:00:1f.2", "vendor": "0x8086", "driver": "ahci"},
    {"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"}
  ],
  "disks": [
    {"name": "sda", "controller": "sata", "size": 8388608, "model": "ST8000 DEMO", "serial": "DEMO0001"},
    {"name": "sdb", "controller": "sata", "size": 8388608, "model": "ST8000 DEMO", "serial": "DEMO0002"},
    {"name": "sdc", "controller": "sas", "size": 4194304, "vendor": "SEAGATE", "model": "ST4000", "serial": "DEMO0003"},
    {"name": "sdd", "controller": "sas", "size": 4194304, "vendor": "SEAGATE", "model": "ST4000", "serial": "DEMO0004"},
    {"name": "sde", "controller": "sas", "size": 4194304, "vendor": "SEAGATE", "model": "ST4000", "serial": "DEMO0005"},
    {"name": "sdf", "controller": "sas", "size": 4194304, "vendor": "SEAGATE", "model": "ST4000", "serial": "DEMO0006"},
    {"name": "sdg", "controller": "sata", "size": 8388608, "model": "ST8000 DEMO", "serial": "DEMO0007"},
    {"name": "sdh", "controller": "sata", "size": 16777216, "model": "INTEL SSDSC2BB480G4", "serial": "DEMO0008",
     "medium": "solid-state",
     "smart": {"attributes": [
       {"id": 5, "value": 100, "raw": 0},
       {"id": 9, "value": 100, "raw": 8760},
       {"id": 12, "value": 100, "raw": 42},
       {"id": 232, "value": 99},
       {"id": 233, "value": 93},
       {"id": 241, "value": 100, "raw": 655360}]}}
  ],
  "arrays": [
    {"name": "md_d0", "level": "raid0", "chunk": 64, "members": ["sda", "sdb"]},
    {"name": "md_d1", "level": "raid1", "members": ["sdc", "sdd"], "spares": ["sde"], "speed": 34048,
     "resync": {"done": 524288}}
  ]
}
)";

}  // namespace Simulation
