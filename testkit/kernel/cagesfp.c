// SPDX-License-Identifier: GPL-2.0-only
/*
 * cagesfp - what the kernel's own sfp driver needs around it, in memory, for tests.
 *
 * For each ACPI device TST0001 of cages.asl: an I2C bus with a module's memories at 0x50 and 0x51,
 * the lines of a cage, and a network port sfpN. Presence, retries, hwmon and module reads are then
 * the work of the unmodified sfp driver. Load this module before it.
 *
 * debugfs, cagesfp/sfpN:
 *   a0, a2                 256 bytes of memory each
 *   present, los, tx_fault the lines that the module drives, 0 or 1
 *   tx_disable             the line that the driver drives
 *   nak                    1: the module acknowledges nothing, transfers fail with ENXIO
 *   khz                    speed of the bus; 0: transfers take no time
 *   transfers, bytes       what went over the bus
 *   bus                    number of the bus, as in /dev/i2c-N
 */
#include <linux/acpi.h>
#include <linux/debugfs.h>
#include <linux/delay.h>
#include <linux/etherdevice.h>
#include <linux/ethtool.h>
#include <linux/gpio/driver.h>
#include <linux/gpio/machine.h>
#include <linux/i2c.h>
#include <linux/module.h>
#include <linux/platform_device.h>
#include <linux/sfp.h>

#define MEMORY_LENGTH 256

enum { LINE_PRESENT, LINE_LOS, LINE_FAULT, LINE_DISABLE, LINES };

static const char *const line_names[] = { "mod-def0", "los", "tx-fault", "tx-disable" };

struct memory {
	u8 bytes[MEMORY_LENGTH];
	u8 offset; /* of the next byte to read */
};

struct cage {
	unsigned int number;
	struct i2c_adapter i2c;
	struct gpio_chip gpio;
	struct gpiod_lookup_table *lookup;
	struct net_device *dev;
	struct sfp_bus *bus;
	struct memory memory[2];
	u32 line[LINES];
	u32 nak, khz, transfers, bytes, bus_number;
};

static struct dentry *root;

static struct memory *addressed(struct cage *c, const struct i2c_msg *m)
{
	if (!READ_ONCE(c->line[LINE_PRESENT]) || READ_ONCE(c->nak))
		return NULL;
	if (m->addr != 0x50 && m->addr != 0x51)
		return NULL;
	return &c->memory[m->addr - 0x50];
}

/* The first written byte sets the offset, as in a serial EEPROM. */
static void move_bytes(struct memory *memory, struct i2c_msg *m)
{
	int i;

	for (i = 0; i < m->len; i++)
		if (m->flags & I2C_M_RD)
			m->buf[i] = memory->bytes[memory->offset++];
		else if (i == 0)
			memory->offset = m->buf[0];
		else
			memory->bytes[memory->offset++] = m->buf[i];
}

static int bus_transfer(struct i2c_adapter *adapter, struct i2c_msg *m, int n)
{
	struct cage *c = i2c_get_adapdata(adapter);
	u32 khz = READ_ONCE(c->khz);
	unsigned long bits = 1; /* stop */
	int i;

	for (i = 0; i < n; i++) {
		struct memory *memory = addressed(c, &m[i]);

		if (!memory)
			return -ENXIO;
		move_bytes(memory, &m[i]);
		c->bytes += m[i].len;
		bits += 1 + 9 * (1 + m[i].len); /* start, address and bytes, each with its acknowledgement */
	}
	if (khz)
		usleep_range(bits * 1000 / khz, bits * 1000 / khz + 20);
	c->transfers++;
	return n;
}

static u32 bus_functionality(struct i2c_adapter *adapter)
{
	return I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL;
}

static const struct i2c_algorithm bus_algorithm = {
	.master_xfer = bus_transfer,
	.functionality = bus_functionality,
};

/* A module pulls mod-def0 to ground. */
static int line_get(struct gpio_chip *gpio, unsigned int n)
{
	struct cage *c = gpiochip_get_data(gpio);

	return n == LINE_PRESENT ? !c->line[n] : !!c->line[n];
}

static void line_set(struct gpio_chip *gpio, unsigned int n, int value)
{
	struct cage *c = gpiochip_get_data(gpio);

	c->line[n] = value;
}

static int line_direction_input(struct gpio_chip *gpio, unsigned int n)
{
	return 0;
}

static int line_direction_output(struct gpio_chip *gpio, unsigned int n, int value)
{
	line_set(gpio, n, value);
	return 0;
}

static struct cage *cage_of(struct net_device *dev)
{
	return *(struct cage **)netdev_priv(dev);
}

static void upstream_attach(void *dev, struct sfp_bus *bus)
{
	((struct net_device *)dev)->sfp_bus = bus;
}

static void upstream_detach(void *dev, struct sfp_bus *bus)
{
	((struct net_device *)dev)->sfp_bus = NULL;
}

static int upstream_module_insert(void *dev, const struct sfp_eeprom_id *id)
{
	return 0;
}

static void upstream_link_up(void *dev)
{
	netif_carrier_on(dev);
}

static void upstream_link_down(void *dev)
{
	netif_carrier_off(dev);
}

static const struct sfp_upstream_ops upstream_ops = {
	.attach = upstream_attach,
	.detach = upstream_detach,
	.module_insert = upstream_module_insert,
	.link_up = upstream_link_up,
	.link_down = upstream_link_down,
};

static int port_open(struct net_device *dev)
{
	sfp_upstream_start(cage_of(dev)->bus);
	return 0;
}

static int port_stop(struct net_device *dev)
{
	sfp_upstream_stop(cage_of(dev)->bus);
	return 0;
}

static netdev_tx_t port_xmit(struct sk_buff *skb, struct net_device *dev)
{
	dev_kfree_skb(skb);
	return NETDEV_TX_OK;
}

static const struct net_device_ops port_netdev_ops = {
	.ndo_open = port_open,
	.ndo_stop = port_stop,
	.ndo_start_xmit = port_xmit,
};

static int port_link_ksettings(struct net_device *dev, struct ethtool_link_ksettings *k)
{
	k->base.speed = netif_carrier_ok(dev) ? SPEED_10000 : SPEED_UNKNOWN;
	k->base.duplex = DUPLEX_FULL;
	k->base.port = PORT_FIBRE;
	return 0;
}

static const struct ethtool_ops port_ethtool_ops = {
	.get_link = ethtool_op_get_link,
	.get_link_ksettings = port_link_ksettings,
};

static ssize_t memory_read(struct file *f, char __user *to, size_t n, loff_t *at)
{
	struct memory *memory = f->private_data;

	return simple_read_from_buffer(to, n, at, memory->bytes, MEMORY_LENGTH);
}

static ssize_t memory_write(struct file *f, const char __user *from, size_t n, loff_t *at)
{
	struct memory *memory = f->private_data;

	return simple_write_to_buffer(memory->bytes, MEMORY_LENGTH, at, from, n);
}

static const struct file_operations memory_fops = {
	.owner = THIS_MODULE,
	.open = simple_open,
	.read = memory_read,
	.write = memory_write,
	.llseek = default_llseek,
};

static int make_bus(struct cage *c, struct device *parent)
{
	int r;

	c->i2c.owner = THIS_MODULE;
	c->i2c.algo = &bus_algorithm;
	c->i2c.dev.parent = parent;
	ACPI_COMPANION_SET(&c->i2c.dev, ACPI_COMPANION(parent));
	snprintf(c->i2c.name, sizeof(c->i2c.name), "cage %u", c->number);
	i2c_set_adapdata(&c->i2c, c);
	r = devm_i2c_add_adapter(parent, &c->i2c);
	c->bus_number = c->i2c.nr;
	return r;
}

/* The sfp driver finds the lines by the name of its own device. */
static int make_lines(struct cage *c, struct device *parent)
{
	int i, r;

	c->gpio.parent = parent;
	c->gpio.owner = THIS_MODULE;
	c->gpio.label = devm_kasprintf(parent, GFP_KERNEL, "cage-lines.%u", c->number);
	c->gpio.base = -1;
	c->gpio.ngpio = LINES;
	c->gpio.names = line_names;
	c->gpio.get = line_get;
	c->gpio.set = line_set;
	c->gpio.direction_input = line_direction_input;
	c->gpio.direction_output = line_direction_output;
	c->lookup = devm_kzalloc(parent, struct_size(c->lookup, table, LINES + 1), GFP_KERNEL);
	if (!c->gpio.label || !c->lookup)
		return -ENOMEM;
	r = devm_gpiochip_add_data(parent, &c->gpio, c);
	if (r)
		return r;
	c->lookup->dev_id = devm_kasprintf(parent, GFP_KERNEL, "PRP0001:%02x", c->number);
	for (i = 0; i < LINES; i++)
		c->lookup->table[i] = (struct gpiod_lookup)GPIO_LOOKUP(c->gpio.label, i, line_names[i],
			i == LINE_PRESENT ? GPIO_ACTIVE_LOW : GPIO_ACTIVE_HIGH);
	gpiod_add_lookup_table(c->lookup);
	return 0;
}

static int make_port(struct cage *c, struct device *parent)
{
	struct net_device *dev = devm_alloc_etherdev(parent, sizeof(c));
	int r;

	if (!dev)
		return -ENOMEM;
	c->dev = dev;
	*(struct cage **)netdev_priv(dev) = c;
	SET_NETDEV_DEV(dev, parent);
	snprintf(dev->name, IFNAMSIZ, "sfp%u", c->number);
	dev->netdev_ops = &port_netdev_ops;
	dev->ethtool_ops = &port_ethtool_ops;
	eth_hw_addr_random(dev);
	netif_carrier_off(dev);
	c->bus = sfp_bus_find_fwnode(dev_fwnode(parent));
	if (IS_ERR_OR_NULL(c->bus))
		return c->bus ? PTR_ERR(c->bus) : -ENODEV;
	r = sfp_bus_add_upstream(c->bus, dev, &upstream_ops);
	return r ? r : register_netdev(dev);
}

static void show_cage(struct cage *c)
{
	const struct {
		const char *name;
		u32 *value;
	} numbers[] = {
		{ "present", &c->line[LINE_PRESENT] },
		{ "los", &c->line[LINE_LOS] },
		{ "tx_fault", &c->line[LINE_FAULT] },
		{ "tx_disable", &c->line[LINE_DISABLE] },
		{ "nak", &c->nak },
		{ "khz", &c->khz },
		{ "transfers", &c->transfers },
		{ "bytes", &c->bytes },
		{ "bus", &c->bus_number },
	};
	struct dentry *dir = debugfs_create_dir(c->dev->name, root);
	int i;

	debugfs_create_file("a0", 0600, dir, &c->memory[0], &memory_fops);
	debugfs_create_file("a2", 0600, dir, &c->memory[1], &memory_fops);
	for (i = 0; i < ARRAY_SIZE(numbers); i++)
		debugfs_create_u32(numbers[i].name, 0600, dir, numbers[i].value);
}

static int cage_probe(struct platform_device *pdev)
{
	struct device *dev = &pdev->dev;
	struct cage *c = devm_kzalloc(dev, sizeof(*c), GFP_KERNEL);
	u64 uid;
	int r;

	if (!c)
		return -ENOMEM;
	if (acpi_evaluate_integer(ACPI_HANDLE(dev), "_UID", NULL, &uid) != AE_OK)
		return -ENODEV;
	c->number = uid;
	r = make_bus(c, dev);
	if (!r)
		r = make_lines(c, dev);
	if (!r)
		r = make_port(c, dev);
	if (!r)
		show_cage(c);
	return r;
}

static const struct acpi_device_id acpi_ids[] = { { "TST0001" }, { } };

static struct platform_driver driver = {
	.probe = cage_probe,
	.driver = {
		.name = "cagesfp",
		.acpi_match_table = acpi_ids,
		.suppress_bind_attrs = true,
	},
};

/* There is no exit: the references of the sfp driver can't be revoked. */
static int __init cagesfp_init(void)
{
	root = debugfs_create_dir("cagesfp", NULL);
	return platform_driver_register(&driver);
}

module_init(cagesfp_init);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("What the kernel's sfp driver needs around it, in memory");
