// SPDX-License-Identifier: GPL-2.0-only
// Two network ports, each above an SFP cage of the kernel's sfp driver. The sfp driver finds the bus
// of its module by "i2c-bus", and cagesfp the cage by "sfp".
DefinitionBlock ("", "SSDT", 2, "TEST", "CAGES", 1)
{
    Scope (\_SB)
    {
        Device (PRT0)
        {
            Name (_HID, "TST0001")
            Name (_UID, Zero)
            Name (_DSD, Package () {
                ToUUID ("daffd814-6eba-4d8c-8a91-bc9bbf4aa301"),
                Package () { Package () { "sfp", \_SB.SFP0 } }
            })
        }
        Device (SFP0)
        {
            Name (_HID, "PRP0001")
            Name (_UID, Zero)
            Name (_DSD, Package () {
                ToUUID ("daffd814-6eba-4d8c-8a91-bc9bbf4aa301"),
                Package () {
                    Package () { "compatible", "sff,sfp" },
                    Package () { "i2c-bus", \_SB.PRT0 },
                    Package () { "maximum-power-milliwatt", 2000 }
                }
            })
        }
        Device (PRT1)
        {
            Name (_HID, "TST0001")
            Name (_UID, One)
            Name (_DSD, Package () {
                ToUUID ("daffd814-6eba-4d8c-8a91-bc9bbf4aa301"),
                Package () { Package () { "sfp", \_SB.SFP1 } }
            })
        }
        Device (SFP1)
        {
            Name (_HID, "PRP0001")
            Name (_UID, One)
            Name (_DSD, Package () {
                ToUUID ("daffd814-6eba-4d8c-8a91-bc9bbf4aa301"),
                Package () {
                    Package () { "compatible", "sff,sfp" },
                    Package () { "i2c-bus", \_SB.PRT1 },
                    Package () { "maximum-power-milliwatt", 2000 }
                }
            })
        }
    }
}
