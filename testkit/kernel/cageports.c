// SPDX-License-Identifier: GPL-2.0-only
/*
 * cageports - network ports with a cage for a module, in memory, for tests.
 *
 *   insmod cageports.ko ports=5 ioctl_only=1
 *
 * makes cage0 to cage4. The last `ioctl_only` ports offer their module's memory by the operations
 * of older drivers only (get_module_info, get_module_eeprom), the others by page.
 *
 * A port has the platform device cageports.N; without its driver there is no cageN.
 *
 * debugfs, cageports/cageN:
 *   a0, a2        the memory at I2C addresses 0x50 and 0x51: 128 lower bytes, then pages of 128
 *   bank1..bank3  the pages of address 0x50 in that bank, laid out as in a0
 *   present       0: reads fail with ENODEV
 *   error         an errno: reads fail with it
 *   delay_us      how long each byte takes to read
 *   carrier       0 or 1
 *   flap          N: the carrier falls and rises N times
 *   speed, lanes  of the link
 *   ext_state, ext_substate  the extended state of a link without carrier, where the first is not 255
 *   fec_corrected, fec_uncorrectable, symbol_errors  what the driver has counted
 *   counter_reads how often that was asked for; can be written
 *   fec_slow_us   how long the driver takes to say it
 *   fail          the driver reports an error of the device, "fw_fatal", and recovers
 *   reads, bytes  what was read so far; can be written
 *   reading       1 while a read goes on
 *
 * debugfs, cageports/no_netlink: 1: the kernel says that it has no generic netlink families, as one
 * that is too old to read modules by netlink.
 */
#include <linux/debugfs.h>
#include <linux/delay.h>
#include <linux/etherdevice.h>
#include <linux/ethtool.h>
#include <linux/kprobes.h>
#include <linux/module.h>
#include <linux/netdevice.h>
#include <linux/platform_device.h>
#include <linux/rtnetlink.h>
#include <linux/vmalloc.h>
#include <net/devlink.h>

#define PAGE_LENGTH 128
#define MEMORY_LENGTH (PAGE_LENGTH * 257)
#define MAX_PORTS 512

enum { A0, A2, BANK1, BANK2, BANK3, MEMORIES };

static unsigned int ports = 4;
module_param(ports, uint, 0444);
static unsigned int ioctl_only = 1;
module_param(ioctl_only, uint, 0444);

struct cage {
	struct platform_device *device;
	struct net_device *dev; /* while the driver is bound, as these */
	struct devlink *devlink;
	struct devlink_health_reporter *reporter;
	unsigned int number;
	u8 *memory[MEMORIES];
	u32 present, error, delay_us, speed, lanes, reads, bytes, reading, ext_state, ext_substate;
	u32 fec, fec_corrected, fec_uncorrectable, symbol_errors, counter_reads, fec_slow_us;
};

static struct cage **cages;
static struct dentry *root;
static u32 no_netlink;

static struct cage *cage_of(struct net_device *dev)
{
	return *(struct cage **)netdev_priv(dev);
}

static int module_state(const struct cage *c)
{
	if (!READ_ONCE(c->present))
		return -ENODEV;
	return -(int)READ_ONCE(c->error);
}

static int read_memory(struct cage *c, int memory, u32 at, u32 length, u8 *to)
{
	u32 left;
	int r = module_state(c);

	if (r)
		return r;
	if (at + length > MEMORY_LENGTH)
		return -EINVAL;
	WRITE_ONCE(c->reading, 1);
	for (left = length * READ_ONCE(c->delay_us); left; left -= min(left, 10000U))
		usleep_range(min(left, 10000U), min(left, 10000U) + 20);
	memcpy(to, c->memory[memory] + at, length);
	c->reads++;
	c->bytes += length;
	WRITE_ONCE(c->reading, 0);
	return module_state(c);
}

static int get_module_eeprom_by_page(struct net_device *dev, const struct ethtool_module_eeprom *p,
				     struct netlink_ext_ack *extack)
{
	u32 at = p->offset < PAGE_LENGTH ? p->offset : PAGE_LENGTH * p->page + p->offset;
	int memory, r;

	if (p->i2c_address == 0x50 && p->bank <= BANK3 - A2)
		memory = p->bank ? A2 + p->bank : A0;
	else if (p->i2c_address == 0x51 && !p->bank)
		memory = A2;
	else
		return -EINVAL;
	r = read_memory(cage_of(dev), memory, at, p->length, p->data);
	return r ? r : p->length;
}

static bool is_sfp(const struct cage *c)
{
	u8 identifier = c->memory[A0][0];

	return identifier == 0x02 || identifier == 0x03 || identifier == 0x0b;
}

static int get_module_info(struct net_device *dev, struct ethtool_modinfo *m)
{
	const struct cage *c = cage_of(dev);
	const u8 *a0 = c->memory[A0];

	if (!is_sfp(c)) {
		m->type = a0[0] == 0x11 ? ETH_MODULE_SFF_8636 : ETH_MODULE_SFF_8436;
		m->eeprom_len = ETH_MODULE_SFF_8636_MAX_LEN;
	} else if (a0[94] && !(a0[92] & 0x04)) {
		m->type = ETH_MODULE_SFF_8472;
		m->eeprom_len = ETH_MODULE_SFF_8472_LEN;
	} else {
		m->type = ETH_MODULE_SFF_8079;
		m->eeprom_len = ETH_MODULE_SFF_8079_LEN;
	}
	return module_state(c);
}

/* One row of bytes: both memories of an SFP module, or the lower memory and the pages. */
static int get_module_eeprom(struct net_device *dev, struct ethtool_eeprom *e, u8 *to)
{
	struct cage *c = cage_of(dev);
	u32 first = e->len;
	int r;

	if (!is_sfp(c))
		return read_memory(c, A0, e->offset, e->len, to);
	if (e->offset >= 256)
		return read_memory(c, A2, e->offset - 256, e->len, to);
	if (e->offset + e->len > 256)
		first = 256 - e->offset;
	r = read_memory(c, A0, e->offset, first, to);
	if (r || first == e->len)
		return r;
	return read_memory(c, A2, 0, e->len - first, to + first);
}

static int get_link_ksettings(struct net_device *dev, struct ethtool_link_ksettings *k)
{
	const struct cage *c = cage_of(dev);
	bool is_up = netif_carrier_ok(dev);

	k->base.speed = is_up ? c->speed : SPEED_UNKNOWN;
	k->base.duplex = is_up ? DUPLEX_FULL : DUPLEX_UNKNOWN;
	k->base.port = PORT_FIBRE;
	k->base.autoneg = AUTONEG_DISABLE;
	k->lanes = c->lanes;
	return 0;
}

#define NO_STATE 255

static int get_link_ext_state(struct net_device *dev, struct ethtool_link_ext_state_info *i)
{
	const struct cage *c = cage_of(dev);

	if (READ_ONCE(c->ext_state) == NO_STATE)
		return -ENODATA;
	i->link_ext_state = READ_ONCE(c->ext_state);
	i->__link_ext_substate = READ_ONCE(c->ext_substate);
	return 0;
}

static int get_fecparam(struct net_device *dev, struct ethtool_fecparam *f)
{
	f->fec = f->active_fec = cage_of(dev)->fec;
	return 0;
}

/* The ethtool core announces each change. */
static int set_fecparam(struct net_device *dev, struct ethtool_fecparam *f)
{
	cage_of(dev)->fec = f->fec;
	return 0;
}

static void get_fec_stats(struct net_device *dev, struct ethtool_fec_stats *s)
{
	struct cage *c = cage_of(dev);

	if (READ_ONCE(c->fec_slow_us))
		usleep_range(c->fec_slow_us, c->fec_slow_us + 20);
	s->corrected_blocks.total = READ_ONCE(c->fec_corrected);
	s->uncorrectable_blocks.total = READ_ONCE(c->fec_uncorrectable);
	WRITE_ONCE(c->counter_reads, c->counter_reads + 1);
}

static void get_eth_phy_stats(struct net_device *dev, struct ethtool_eth_phy_stats *s)
{
	s->SymbolErrorDuringCarrier = READ_ONCE(cage_of(dev)->symbol_errors);
}

static const struct ethtool_ops ops_by_page = {
	.cap_link_lanes_supported = true,
	.get_fecparam = get_fecparam,
	.set_fecparam = set_fecparam,
	.get_fec_stats = get_fec_stats,
	.get_eth_phy_stats = get_eth_phy_stats,
	.get_link = ethtool_op_get_link,
	.get_link_ksettings = get_link_ksettings,
	.get_link_ext_state = get_link_ext_state,
	.get_module_eeprom_by_page = get_module_eeprom_by_page,
};

static const struct ethtool_ops ops_by_ioctl = {
	.get_link = ethtool_op_get_link,
	.get_link_ksettings = get_link_ksettings,
	.get_module_info = get_module_info,
	.get_module_eeprom = get_module_eeprom,
};

static netdev_tx_t start_xmit(struct sk_buff *skb, struct net_device *dev)
{
	dev_kfree_skb(skb);
	return NETDEV_TX_OK;
}

static int get_phys_port_name(struct net_device *dev, char *name, size_t length)
{
	snprintf(name, length, "p%u", cage_of(dev)->number + 1);
	return 0;
}

static const struct net_device_ops netdev_ops = {
	.ndo_start_xmit = start_xmit,
	.ndo_get_phys_port_name = get_phys_port_name,
};

static ssize_t memory_read(struct file *f, char __user *to, size_t n, loff_t *at)
{
	return simple_read_from_buffer(to, n, at, f->private_data, MEMORY_LENGTH);
}

/* A write at offset 0 replaces the whole memory; the rest becomes zeros. */
static ssize_t memory_write(struct file *f, const char __user *from, size_t n, loff_t *at)
{
	if (*at == 0)
		memset(f->private_data, 0, MEMORY_LENGTH);
	return simple_write_to_buffer(f->private_data, MEMORY_LENGTH, at, from, n);
}

static const struct file_operations memory_fops = {
	.owner = THIS_MODULE,
	.open = simple_open,
	.read = memory_read,
	.write = memory_write,
	.llseek = default_llseek,
};

static int carrier_set(void *data, u64 value)
{
	struct cage *c = data;

	rtnl_lock();
	if (!c->dev)
		;
	else if (value)
		netif_carrier_on(c->dev);
	else
		netif_carrier_off(c->dev);
	rtnl_unlock();
	return 0;
}

static int carrier_get(void *data, u64 *value)
{
	struct cage *c = data;

	*value = c->dev && netif_carrier_ok(c->dev);
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(carrier_fops, carrier_get, carrier_set, "%llu\n");

static int flap_set(void *data, u64 value)
{
	struct cage *c = data;

	while (c->dev && value--) {
		netif_carrier_off(c->dev);
		netif_carrier_on(c->dev);
		cond_resched();
	}
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(flap_fops, NULL, flap_set, "%llu\n");

static int fail_set(void *data, u64 value)
{
	struct cage *c = data;

	return c->dev ? devlink_health_report(c->reporter, "by debugfs", c) : -ENODEV;
}
DEFINE_DEBUGFS_ATTRIBUTE(fail_fops, NULL, fail_set, "%llu\n");

static void cage_show(struct cage *c)
{
	static const char *const memories[] = { "a0", "a2", "bank1", "bank2", "bank3" };
	const struct {
		const char *name;
		u32 *value;
	} numbers[] = {
		{ "present", &c->present }, { "error", &c->error },   { "delay_us", &c->delay_us },
		{ "speed", &c->speed },	    { "lanes", &c->lanes },   { "reads", &c->reads },
		{ "bytes", &c->bytes },	    { "reading", &c->reading },
		{ "ext_state", &c->ext_state },
		{ "ext_substate", &c->ext_substate },
		{ "fec_corrected", &c->fec_corrected },
		{ "fec_uncorrectable", &c->fec_uncorrectable },
		{ "symbol_errors", &c->symbol_errors },
		{ "counter_reads", &c->counter_reads },
		{ "fec_slow_us", &c->fec_slow_us },
	};
	char name[IFNAMSIZ];
	struct dentry *dir;
	int i;

	snprintf(name, sizeof(name), "cage%u", c->number);
	dir = debugfs_create_dir(name, root);

	for (i = 0; i < MEMORIES; i++)
		debugfs_create_file(memories[i], 0600, dir, c->memory[i], &memory_fops);
	for (i = 0; i < ARRAY_SIZE(numbers); i++)
		debugfs_create_u32(numbers[i].name, 0600, dir, numbers[i].value);
	debugfs_create_file("carrier", 0600, dir, c, &carrier_fops);
	debugfs_create_file("fail", 0200, dir, c, &fail_fops);
	debugfs_create_file("flap", 0200, dir, c, &flap_fops);
}

static void cage_free(struct cage *c)
{
	int i;

	if (!c)
		return;
	platform_device_unregister(c->device);
	for (i = 0; i < MEMORIES; i++)
		vfree(c->memory[i]);
	kfree(c);
}

static struct net_device *netdev_make(struct cage *c, struct platform_device *device)
{
	struct net_device *dev = alloc_etherdev(sizeof(c));

	if (!dev)
		return NULL;
	*(struct cage **)netdev_priv(dev) = c;
	snprintf(dev->name, IFNAMSIZ, "cage%u", c->number);
	SET_NETDEV_DEV(dev, &device->dev);
	dev->netdev_ops = &netdev_ops;
	dev->ethtool_ops = c->number < ports - ioctl_only ? &ops_by_page : &ops_by_ioctl;
	eth_hw_addr_random(dev);
	netif_carrier_off(dev);
	if (register_netdev(dev)) {
		free_netdev(dev);
		return NULL;
	}
	return dev;
}

static int recover(struct devlink_health_reporter *reporter, void *context,
		   struct netlink_ext_ack *extack)
{
	return 0;
}

static const struct devlink_ops devlink_ops;
static const struct devlink_health_reporter_ops reporter_ops = {
	.name = "fw_fatal",
	.recover = recover,
};

static int health_make(struct cage *c, struct device *device)
{
	c->devlink = devlink_alloc(&devlink_ops, 0, device);
	if (!c->devlink)
		return -ENOMEM;
	c->reporter = devlink_health_reporter_create(c->devlink, &reporter_ops, 0, c);
	if (IS_ERR(c->reporter)) {
		devlink_free(c->devlink);
		return PTR_ERR(c->reporter);
	}
	devlink_register(c->devlink);
	return 0;
}

static void health_free(struct cage *c)
{
	devlink_unregister(c->devlink);
	devlink_health_reporter_destroy(c->reporter);
	devlink_free(c->devlink);
}

static int cage_probe(struct platform_device *device)
{
	struct cage *c = *(struct cage **)dev_get_platdata(&device->dev);

	int r = health_make(c, &device->dev);

	if (r)
		return r;
	c->dev = netdev_make(c, device);
	if (!c->dev)
		health_free(c);
	return c->dev ? 0 : -ENOMEM;
}

static int cage_remove(struct platform_device *device)
{
	struct cage *c = *(struct cage **)dev_get_platdata(&device->dev);
	struct net_device *dev = c->dev;

	rtnl_lock();
	c->dev = NULL;
	unregister_netdevice(dev);
	rtnl_unlock();
	free_netdev(dev);
	health_free(c);
	return 0;
}

static struct platform_driver cage_driver = {
	.probe = cage_probe,
	.remove = cage_remove,
	.driver = { .name = "cageports" },
};

static struct cage *cage_make(unsigned int number)
{
	struct cage *c = kzalloc(sizeof(*c), GFP_KERNEL);
	int i;

	if (!c)
		return NULL;
	c->number = number;
	c->speed = SPEED_10000;
	c->lanes = 1;
	c->ext_state = NO_STATE;
	c->fec = ETHTOOL_FEC_RS;
	for (i = 0; i < MEMORIES; i++) {
		c->memory[i] = vzalloc(MEMORY_LENGTH);
		if (!c->memory[i])
			goto failed;
	}
	c->device = platform_device_register_data(NULL, "cageports", number, &c, sizeof(c));
	if (IS_ERR(c->device))
		c->device = NULL;
	if (!c->dev)
		goto failed;
	cage_show(c);
	return c;

failed:
	cage_free(c);
	return NULL;
}

static int no_family(struct sk_buff *skb, struct genl_info *info)
{
	return -ENOENT;
}

/* Runs in place of the kernel's function that looks for a family, with the same arguments. */
static int replace_ctrl_getfamily(struct kprobe *probe, struct pt_regs *regs)
{
	if (!READ_ONCE(no_netlink))
		return 0;
	instruction_pointer_set(regs, (unsigned long)no_family);
	return 1;
}

/* A probe that has a handler of this kind may change the instruction pointer. */
static void after_ctrl_getfamily(struct kprobe *probe, struct pt_regs *regs, unsigned long flags)
{
}

static struct kprobe getfamily_probe = {
	.symbol_name = "ctrl_getfamily",
	.pre_handler = replace_ctrl_getfamily,
	.post_handler = after_ctrl_getfamily,
};

static void cages_free(void)
{
	unsigned int i;

	debugfs_remove(root);
	for (i = 0; i < ports; i++)
		cage_free(cages[i]);
	platform_driver_unregister(&cage_driver);
	kfree(cages);
}

static int __init cageports_init(void)
{
	unsigned int i;
	int r;

	if (ports < 1 || ports > MAX_PORTS || ioctl_only > ports)
		return -EINVAL;
	cages = kcalloc(ports, sizeof(*cages), GFP_KERNEL);
	if (!cages)
		return -ENOMEM;
	r = platform_driver_register(&cage_driver);
	if (r) {
		kfree(cages);
		return r;
	}
	root = debugfs_create_dir("cageports", NULL);
	debugfs_create_u32("no_netlink", 0600, root, &no_netlink);
	for (i = 0; i < ports; i++) {
		cages[i] = cage_make(i);
		if (!cages[i]) {
			cages_free();
			return -ENOMEM;
		}
	}
	r = register_kprobe(&getfamily_probe);
	if (r)
		cages_free();
	return r;
}

static void __exit cageports_exit(void)
{
	unregister_kprobe(&getfamily_probe);
	cages_free();
}

module_init(cageports_init);
module_exit(cageports_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Network ports with a cage, in memory");
