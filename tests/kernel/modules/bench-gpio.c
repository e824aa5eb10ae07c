// SPDX-License-Identifier: GPL-2.0
/*
 * GPIO chips whose lines a test can pull and watch.
 *
 * Chips with fixed number bases differ in how their lines are named, which
 * decides the folder that an exported line gets under /sys/class/gpio:
 *
 *   plain    100  no names                                   gpio100
 *   labelled 200  names only in the line descriptors          gpio200
 *   named    300  names in the chip itself                    bench-named-0
 *   wide     400  32 lines without names                      gpio400
 *   long     500  as named, of more than 31 characters        bench-long-0-...
 *   bank-a   632  names in the chip itself                    bench-bank-a-0
 *   bank-b   600  the same, and all else like bank-a          bench-bank-b-0
 *
 * The banks have one parent and one label, so that no file tells which of the
 * two number bases is whose.
 *
 * Without GPIO files in sysfs, all names are in the line descriptors, those of
 * plain and wide as well, and the kernel chooses the bases: it never forgets a
 * chip that goes while a line of it is requested. The chip could not return to
 * a base of its own then, and the kernel crashes when one comes that has names
 * itself.
 *
 * Each chip is a platform device, so writing its name to the driver's
 * `unbind` and `bind` files makes it vanish and return.
 *
 * What the outside world sees on a line is its wire level: the driven level
 * of an output, the pulled level of an input. Everything that is done to a
 * line is recorded with a running number and a time, so that even a level
 * that lasted for a microsecond can be found afterwards.
 */
#include <linux/debugfs.h>
#include <linux/gpio/driver.h>
#include <linux/interrupt.h>
#include <linux/irq.h>
#include <linux/irq_sim.h>
#include <linux/irqdomain.h>
#include <linux/ktime.h>
#include <linux/module.h>
#include <linux/platform_device.h>
#include <linux/property.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

#define LINES_MAX 32
#define HISTORY_SIZE 4096
/* Nothing outside the kernel numbers pins, which need names then */
#define NO_NUMBERS !IS_ENABLED(CONFIG_GPIO_SYSFS)

enum record_kind { REC_REQUEST, REC_FREE, REC_IN, REC_OUT, REC_SET, REC_PULL };

static const char *const kind_names[] = { "request", "free", "in",
					  "out",     "set",  "pull" };

struct record {
	u32 number;
	u64 time_ns;
	u8 line;
	u8 kind;
	u8 level;
};

struct bench_line {
	struct bench_chip *chip;
	unsigned int offset;
	u32 cleared; /* records below this number are not shown any more */
	bool is_out;
	bool driven;
	bool pulled;
	bool busy;
	u32 flip_reads; /* readings left until the line flips by itself */
	u32 failing_reads; /* readings left that fail */
};

struct bench_chip {
	struct gpio_chip gc;
	struct irq_domain *domain;
	struct dentry *dir;
	spinlock_t lock; /* guards the lines and the history */
	u32 next_record;
	struct bench_line lines[LINES_MAX];
	struct record history[HISTORY_SIZE];
};

struct chip_plan {
	const char *label;
	int base;
	u16 ngpio;
	bool in_descriptors;
	bool in_chip;
	const char *name_tail; /* what the names in the chip end with */
	bool bank; /* one of those that cannot be told apart */
};

static const struct chip_plan plans[] = {
	{ "plain", 100, 16, false, false },
	{ "labelled", 200, 16, true, false },
	{ "named", 300, 16, false, true },
	{ "wide", 400, 32, false, false },
	{ "long", 500, 16, false, true, "-is-longer-than-31-characters" },
	{ "bank-a", 632, 16, false, true, "", true },
	{ "bank-b", 600, 16, false, true, "", true },
};

static struct platform_device *devices[ARRAY_SIZE(plans)];
static struct fwnode_handle *names_nodes[ARRAY_SIZE(plans)];
static struct dentry *debug_root;
static struct device *banks_parent;

static bool wire_level(const struct bench_line *line)
{
	return line->is_out ? line->driven : line->pulled;
}

static void record(struct bench_line *line, enum record_kind kind)
{
	struct bench_chip *chip = line->chip;
	u32 number = chip->next_record++;

	chip->history[number % HISTORY_SIZE] = (struct record){
		.number = number,
		.time_ns = ktime_get_ns(),
		.line = line->offset,
		.kind = kind,
		.level = wire_level(line),
	};
}

static int bench_request(struct gpio_chip *gc, unsigned int offset)
{
	struct bench_chip *chip = gpiochip_get_data(gc);
	unsigned long flags;
	int ret = 0;

	spin_lock_irqsave(&chip->lock, flags);
	if (chip->lines[offset].busy)
		ret = -EBUSY;
	else
		record(&chip->lines[offset], REC_REQUEST);
	spin_unlock_irqrestore(&chip->lock, flags);
	return ret;
}

/* A released line keeps its direction and level, as on most real chips. */
static void bench_free(struct gpio_chip *gc, unsigned int offset)
{
	struct bench_chip *chip = gpiochip_get_data(gc);
	unsigned long flags;

	spin_lock_irqsave(&chip->lock, flags);
	record(&chip->lines[offset], REC_FREE);
	spin_unlock_irqrestore(&chip->lock, flags);
}

static int bench_get_direction(struct gpio_chip *gc, unsigned int offset)
{
	struct bench_chip *chip = gpiochip_get_data(gc);

	return chip->lines[offset].is_out ? GPIO_LINE_DIRECTION_OUT :
					    GPIO_LINE_DIRECTION_IN;
}

static int bench_direction_input(struct gpio_chip *gc, unsigned int offset)
{
	struct bench_chip *chip = gpiochip_get_data(gc);
	unsigned long flags;

	spin_lock_irqsave(&chip->lock, flags);
	chip->lines[offset].is_out = false;
	record(&chip->lines[offset], REC_IN);
	spin_unlock_irqrestore(&chip->lock, flags);
	return 0;
}

static int bench_direction_output(struct gpio_chip *gc, unsigned int offset,
				  int value)
{
	struct bench_chip *chip = gpiochip_get_data(gc);
	unsigned long flags;

	spin_lock_irqsave(&chip->lock, flags);
	chip->lines[offset].is_out = true;
	chip->lines[offset].driven = value;
	record(&chip->lines[offset], REC_OUT);
	spin_unlock_irqrestore(&chip->lock, flags);
	return 0;
}

/* An input that really changed raises the interrupt of that edge. */
static int raise_edge(struct bench_line *line, bool before, bool after)
{
	unsigned int irq = irq_find_mapping(line->chip->domain, line->offset);

	if (before == after || !irq)
		return 0;
	if (!(irq_get_trigger_type(irq) &
	      (after ? IRQ_TYPE_EDGE_RISING : IRQ_TYPE_EDGE_FALLING)))
		return 0;
	return irq_set_irqchip_state(irq, IRQCHIP_STATE_PENDING, true);
}

/* The reading that uses up `flip_reads` is the last one of the old level: the
 * line changes right behind it. */
static int bench_get(struct gpio_chip *gc, unsigned int offset)
{
	struct bench_chip *chip = gpiochip_get_data(gc);
	struct bench_line *line = &chip->lines[offset];
	unsigned long flags;
	bool level, after;

	spin_lock_irqsave(&chip->lock, flags);
	if (line->failing_reads) {
		line->failing_reads--;
		spin_unlock_irqrestore(&chip->lock, flags);
		return -EIO;
	}
	level = wire_level(line);
	if (line->flip_reads && --line->flip_reads == 0) {
		line->pulled = !line->pulled;
		record(line, REC_PULL);
	}
	after = wire_level(line);
	spin_unlock_irqrestore(&chip->lock, flags);
	raise_edge(line, level, after);
	return level;
}

static void bench_set(struct gpio_chip *gc, unsigned int offset, int value)
{
	struct bench_chip *chip = gpiochip_get_data(gc);
	unsigned long flags;

	spin_lock_irqsave(&chip->lock, flags);
	chip->lines[offset].driven = value;
	record(&chip->lines[offset], REC_SET);
	spin_unlock_irqrestore(&chip->lock, flags);
}

static int bench_to_irq(struct gpio_chip *gc, unsigned int offset)
{
	struct bench_chip *chip = gpiochip_get_data(gc);

	return irq_create_mapping(chip->domain, offset);
}

/* Debug files of one line */

static int level_get(void *data, u64 *value)
{
	*value = wire_level(data);
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(level_ops, level_get, NULL, "%llu\n");

static int direction_get(void *data, u64 *value)
{
	*value = ((struct bench_line *)data)->is_out;
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(is_out_ops, direction_get, NULL, "%llu\n");

static int busy_get(void *data, u64 *value)
{
	*value = ((struct bench_line *)data)->busy;
	return 0;
}

static int busy_set(void *data, u64 value)
{
	((struct bench_line *)data)->busy = value;
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(busy_ops, busy_get, busy_set, "%llu\n");

static int pull_get(void *data, u64 *value)
{
	*value = ((struct bench_line *)data)->pulled;
	return 0;
}

static int pull_set(void *data, u64 value)
{
	struct bench_line *line = data;
	unsigned long flags;
	bool before, after;

	spin_lock_irqsave(&line->chip->lock, flags);
	before = wire_level(line);
	line->pulled = value;
	after = wire_level(line);
	record(line, REC_PULL);
	spin_unlock_irqrestore(&line->chip->lock, flags);
	return raise_edge(line, before, after);
}
DEFINE_DEBUGFS_ATTRIBUTE(pull_ops, pull_get, pull_set, "%llu\n");

/* One record per line of text: number, time in ns, what, wire level after. */
static int history_show(struct seq_file *m, void *unused)
{
	struct bench_line *line = m->private;
	struct bench_chip *chip = line->chip;
	struct record *copy;
	unsigned long flags;
	u32 i, next;

	copy = kvmalloc(sizeof(chip->history), GFP_KERNEL);
	if (!copy)
		return -ENOMEM;
	spin_lock_irqsave(&chip->lock, flags);
	memcpy(copy, chip->history, sizeof(chip->history));
	next = chip->next_record;
	spin_unlock_irqrestore(&chip->lock, flags);

	for (i = next > HISTORY_SIZE ? next - HISTORY_SIZE : 0; i < next; i++) {
		const struct record *r = &copy[i % HISTORY_SIZE];

		if (r->line == line->offset && r->number >= line->cleared)
			seq_printf(m, "%u %llu %s %u\n", r->number, r->time_ns,
				   kind_names[r->kind], r->level);
	}
	kvfree(copy);
	return 0;
}

static int history_open(struct inode *inode, struct file *file)
{
	return single_open(file, history_show, inode->i_private);
}

/* Writing anything forgets what was recorded so far. */
static ssize_t history_write(struct file *file, const char __user *text,
			     size_t count, loff_t *pos)
{
	struct bench_line *line =
		((struct seq_file *)file->private_data)->private;

	line->cleared = line->chip->next_record;
	return count;
}

static const struct file_operations history_ops = {
	.owner = THIS_MODULE,
	.open = history_open,
	.read = seq_read,
	.write = history_write,
	.llseek = seq_lseek,
	.release = single_release,
};

static void add_debug_files(struct bench_chip *chip, const char *label)
{
	unsigned int i;

	chip->dir = debugfs_create_dir(label, debug_root);
	for (i = 0; i < chip->gc.ngpio; i++) {
		struct bench_line *line = &chip->lines[i];
		char name[12];
		struct dentry *dir;

		snprintf(name, sizeof(name), "%u", i);
		dir = debugfs_create_dir(name, chip->dir);
		debugfs_create_file_unsafe("level", 0444, dir, line, &level_ops);
		debugfs_create_file_unsafe("is_out", 0444, dir, line,
					   &is_out_ops);
		debugfs_create_file_unsafe("busy", 0644, dir, line, &busy_ops);
		debugfs_create_file_unsafe("pull", 0644, dir, line, &pull_ops);
		debugfs_create_u32("flip_reads", 0644, dir, &line->flip_reads);
		debugfs_create_u32("failing_reads", 0644, dir,
				   &line->failing_reads);
		debugfs_create_file("history", 0644, dir, line, &history_ops);
	}
}

static void remove_debug_files(void *chip)
{
	debugfs_remove_recursive(((struct bench_chip *)chip)->dir);
}

static void dispose_mappings(void *data)
{
	struct bench_chip *chip = data;
	unsigned int i;

	for (i = 0; i < chip->gc.ngpio; i++)
		irq_dispose_mapping(irq_find_mapping(chip->domain, i));
}

static const char **make_names(struct device *dev, const struct chip_plan *plan)
{
	const char **names =
		devm_kcalloc(dev, plan->ngpio, sizeof(*names), GFP_KERNEL);
	unsigned int i;

	for (i = 0; names && i < plan->ngpio; i++) {
		names[i] = devm_kasprintf(dev, GFP_KERNEL, "bench-%s-%u%s",
					  plan->label, i,
					  plan->name_tail ?: "");
		if (!names[i])
			return NULL;
	}
	return names;
}

static bool has_names_in_chip(const struct chip_plan *plan)
{
	return plan->in_chip && !NO_NUMBERS;
}

static bool has_names_in_descriptors(const struct chip_plan *plan)
{
	return plan->in_descriptors || NO_NUMBERS;
}

static int bench_probe(struct platform_device *pdev)
{
	const struct chip_plan *plan = &plans[pdev->id];
	struct device *dev = &pdev->dev;
	struct bench_chip *chip;
	unsigned int i;
	int ret;

	chip = devm_kzalloc(dev, sizeof(*chip), GFP_KERNEL);
	if (!chip)
		return -ENOMEM;
	spin_lock_init(&chip->lock);
	chip->gc = (struct gpio_chip){
		.label = plan->bank ? "bank" : plan->label,
		.parent = plan->bank ? banks_parent : dev,
		.fwnode = dev_fwnode(dev),
		.owner = THIS_MODULE,
		.base = NO_NUMBERS ? -1 : plan->base,
		.ngpio = plan->ngpio,
		.request = bench_request,
		.free = bench_free,
		.get_direction = bench_get_direction,
		.direction_input = bench_direction_input,
		.direction_output = bench_direction_output,
		.get = bench_get,
		.set = bench_set,
		.to_irq = bench_to_irq,
	};
	if (has_names_in_chip(plan)) {
		chip->gc.names = make_names(dev, plan);
		if (!chip->gc.names)
			return -ENOMEM;
	}
	for (i = 0; i < plan->ngpio; i++) {
		chip->lines[i].chip = chip;
		chip->lines[i].offset = i;
	}

	chip->domain = devm_irq_domain_create_sim(dev, NULL, plan->ngpio);
	if (IS_ERR(chip->domain))
		return PTR_ERR(chip->domain);
	ret = devm_add_action_or_reset(dev, dispose_mappings, chip);
	if (ret)
		return ret;
	ret = devm_gpiochip_add_data(dev, &chip->gc, chip);
	if (ret)
		return ret;
	add_debug_files(chip, plan->label);
	return devm_add_action_or_reset(dev, remove_debug_files, chip);
}

static struct platform_driver bench_driver = {
	.probe = bench_probe,
	.driver = { .name = "bench-gpio" },
};

/* Line names that only the descriptors know travel as a device property. A node
 * of our own outlives the chip's going; one that the device manages is put once
 * too often then. */
static struct fwnode_handle *create_names_node(const struct chip_plan *plan)
{
	const char **names = make_names(banks_parent, plan);
	struct property_entry properties[] = {
		PROPERTY_ENTRY_STRING_ARRAY_LEN("gpio-line-names", names,
						plan->ngpio),
		{}
	};

	if (!names)
		return ERR_PTR(-ENOMEM);
	return fwnode_create_software_node(properties, NULL);
}

static struct platform_device *add_device(const struct chip_plan *plan, int id)
{
	struct platform_device_info info = { .name = "bench-gpio", .id = id };

	if (has_names_in_descriptors(plan)) {
		names_nodes[id] = create_names_node(plan);
		if (IS_ERR(names_nodes[id]))
			return ERR_CAST(names_nodes[id]);
		info.fwnode = names_nodes[id];
	}
	return platform_device_register_full(&info);
}

static void remove_devices(void)
{
	unsigned int i;

	for (i = 0; i < ARRAY_SIZE(plans); i++) {
		if (!IS_ERR_OR_NULL(devices[i]))
			platform_device_unregister(devices[i]);
		fwnode_remove_software_node(names_nodes[i]);
	}
}

static int __init bench_init(void)
{
	unsigned int i;
	int ret;

	debug_root = debugfs_create_dir("bench-gpio", NULL);
	banks_parent = root_device_register("bench-banks");
	if (IS_ERR(banks_parent)) {
		ret = PTR_ERR(banks_parent);
		goto remove_root;
	}
	ret = platform_driver_register(&bench_driver);
	if (ret)
		goto remove_parent;
	for (i = 0; i < ARRAY_SIZE(plans); i++) {
		devices[i] = add_device(&plans[i], i);
		if (IS_ERR(devices[i])) {
			ret = PTR_ERR(devices[i]);
			goto remove_all;
		}
	}
	return 0;

remove_all:
	remove_devices();
	platform_driver_unregister(&bench_driver);
remove_parent:
	root_device_unregister(banks_parent);
remove_root:
	debugfs_remove_recursive(debug_root);
	return ret;
}

static void __exit bench_exit(void)
{
	remove_devices();
	platform_driver_unregister(&bench_driver);
	root_device_unregister(banks_parent);
	debugfs_remove_recursive(debug_root);
}

module_init(bench_init);
module_exit(bench_exit);
MODULE_DESCRIPTION("GPIO chips for tests");
MODULE_LICENSE("GPL");
