// SPDX-License-Identifier: GPL-2.0
/*
 * An SPI controller with two converters behind it, both offered as spidev
 * nodes (/dev/spidev0.0 and /dev/spidev0.1). Nothing is wired to it: what a
 * converter answers is chosen by the test.
 *
 * A converter is asked by a sending transfer whose last byte is the command
 * and answers in the receiving transfer that follows. The reply bytes are
 * kept per command; a command without a reply of its own gets the common one.
 */
#include <linux/ctype.h>
#include <linux/debugfs.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/platform_device.h>
#include <linux/seq_file.h>
#include <linux/spi/spi.h>
#include <linux/uaccess.h>

#define CONVERTERS 2
#define REPLY_BYTES 4
#define COMMANDS 256
#define COMMON COMMANDS

struct converter {
	struct mutex lock; /* guards all that follows */
	u8 reply[COMMANDS + 1][REPLY_BYTES];
	bool has_reply[COMMANDS];
	u32 transfer_error; /* errno that every message fails with, or 0 */
	u32 setup_error; /* errno that every change of a setting fails with */
	u32 top_speed_hz; /* a clock above it is refused, 0 for none */
	u32 messages;
	u32 bits;
	u32 speed_hz;
	u8 command;
	char sent[64]; /* the last message: hex bytes sent, "<n" per receive */
};

static struct converter converters[CONVERTERS];
static struct platform_device *platform;
static struct dentry *debug_root;

static struct converter *of_spi(struct spi_device *spi)
{
	return &converters[spi->chip_select];
}

static void run_transfer(struct converter *c, struct spi_transfer *t)
{
	size_t used = strlen(c->sent);
	const u8 *reply;
	unsigned int i;

	if (t->tx_buf && t->len) {
		const u8 *tx = t->tx_buf;

		for (i = 0; i < t->len; i++)
			used += scnprintf(c->sent + used,
					  sizeof(c->sent) - used, "%02x ",
					  tx[i]);
		c->command = tx[t->len - 1];
	}
	if (t->rx_buf) {
		u8 *rx = t->rx_buf;

		reply = c->reply[c->has_reply[c->command] ? c->command : COMMON];
		for (i = 0; i < t->len; i++)
			rx[i] = i < REPLY_BYTES ? reply[i] : 0;
		scnprintf(c->sent + used, sizeof(c->sent) - used, "<%u ",
			  t->len);
	}
}

static int transfer_message(struct spi_controller *ctlr,
			    struct spi_message *msg)
{
	struct converter *c = of_spi(msg->spi);
	struct spi_transfer *t;

	mutex_lock(&c->lock);
	c->messages++;
	c->sent[0] = '\0';
	msg->status = -(int)c->transfer_error;
	if (!msg->status)
		list_for_each_entry(t, &msg->transfers, transfer_list) {
			run_transfer(c, t);
			msg->actual_length += t->len;
			c->bits = t->bits_per_word;
			c->speed_hz = t->speed_hz;
		}
	mutex_unlock(&c->lock);
	spi_finalize_current_message(ctlr);
	return 0;
}

static int setup_device(struct spi_device *spi)
{
	struct converter *c = of_spi(spi);

	if (c->top_speed_hz && spi->max_speed_hz > c->top_speed_hz)
		return -EINVAL;
	return -(int)c->setup_error;
}

/* "f0 0a" sets the common reply, "90: f0 0a" that of one command. */
static ssize_t reply_write(struct file *file, const char __user *user,
			   size_t count, loff_t *pos)
{
	struct converter *c = file_inode(file)->i_private;
	char text[64];
	unsigned int command = COMMON, b[REPLY_BYTES] = {};
	const char *bytes = text;
	int i;

	if (count >= sizeof(text) || copy_from_user(text, user, count))
		return -EINVAL;
	text[count] = '\0';
	if (strchr(text, ':')) {
		if (sscanf(text, "%x:", &command) != 1 || command >= COMMANDS)
			return -EINVAL;
		bytes = strchr(text, ':') + 1;
	}
	if (sscanf(bytes, "%x %x %x %x", &b[0], &b[1], &b[2], &b[3]) < 2)
		return -EINVAL;

	mutex_lock(&c->lock);
	for (i = 0; i < REPLY_BYTES; i++)
		c->reply[command][i] = b[i];
	if (command < COMMANDS)
		c->has_reply[command] = true;
	mutex_unlock(&c->lock);
	return count;
}

static const struct file_operations reply_ops = {
	.owner = THIS_MODULE,
	.open = simple_open,
	.write = reply_write,
	.llseek = noop_llseek,
};

static int sent_show(struct seq_file *m, void *unused)
{
	struct converter *c = m->private;

	mutex_lock(&c->lock);
	seq_printf(m, "%s\n", c->sent);
	mutex_unlock(&c->lock);
	return 0;
}
DEFINE_SHOW_ATTRIBUTE(sent);

/* Writing anything to `reset` puts a converter back to its first state. */
static ssize_t reset_write(struct file *file, const char __user *user,
			   size_t count, loff_t *pos)
{
	struct converter *c = file_inode(file)->i_private;

	mutex_lock(&c->lock);
	memset(c->reply, 0, sizeof(c->reply));
	memset(c->has_reply, 0, sizeof(c->has_reply));
	c->transfer_error = c->setup_error = c->messages = 0;
	c->top_speed_hz = 0;
	c->sent[0] = '\0';
	mutex_unlock(&c->lock);
	return count;
}

static const struct file_operations reset_ops = {
	.owner = THIS_MODULE,
	.open = simple_open,
	.write = reset_write,
	.llseek = noop_llseek,
};

static void add_debug_files(struct converter *c, unsigned int number)
{
	char name[12];
	struct dentry *dir;

	snprintf(name, sizeof(name), "%u", number);
	dir = debugfs_create_dir(name, debug_root);
	debugfs_create_file("reply", 0200, dir, c, &reply_ops);
	debugfs_create_file("reset", 0200, dir, c, &reset_ops);
	debugfs_create_file("sent", 0444, dir, c, &sent_fops);
	debugfs_create_u32("messages", 0444, dir, &c->messages);
	debugfs_create_u32("bits", 0444, dir, &c->bits);
	debugfs_create_u32("speed_hz", 0444, dir, &c->speed_hz);
	debugfs_create_u32("transfer_error", 0644, dir, &c->transfer_error);
	debugfs_create_u32("setup_error", 0644, dir, &c->setup_error);
	debugfs_create_u32("top_speed_hz", 0644, dir, &c->top_speed_hz);
}

/* spidev binds only to names in its own table; this one is as good as any. */
static int add_spidev(struct spi_controller *ctlr, unsigned int number)
{
	struct spi_board_info info = {
		.modalias = "ltc2488",
		.max_speed_hz = 1000000,
		.chip_select = number,
	};

	return spi_new_device(ctlr, &info) ? 0 : -ENODEV;
}

static int bench_probe(struct platform_device *pdev)
{
	struct spi_controller *ctlr;
	unsigned int i;
	int ret;

	ctlr = devm_spi_alloc_master(&pdev->dev, 0);
	if (!ctlr)
		return -ENOMEM;
	ctlr->bus_num = 0;
	ctlr->num_chipselect = CONVERTERS;
	ctlr->mode_bits = SPI_CPOL | SPI_CPHA;
	ctlr->bits_per_word_mask = SPI_BPW_MASK(8) | SPI_BPW_MASK(16);
	ctlr->transfer_one_message = transfer_message;
	ctlr->setup = setup_device;
	ret = devm_spi_register_controller(&pdev->dev, ctlr);
	for (i = 0; !ret && i < CONVERTERS; i++)
		ret = add_spidev(ctlr, i);
	return ret;
}

static struct platform_driver bench_driver = {
	.probe = bench_probe,
	.driver = { .name = "bench-spi" },
};

static int __init bench_init(void)
{
	unsigned int i;
	int ret;

	debug_root = debugfs_create_dir("bench-spi", NULL);
	for (i = 0; i < CONVERTERS; i++) {
		mutex_init(&converters[i].lock);
		add_debug_files(&converters[i], i);
	}
	ret = platform_driver_register(&bench_driver);
	if (!ret) {
		platform = platform_device_register_simple("bench-spi", -1,
							   NULL, 0);
		ret = PTR_ERR_OR_ZERO(platform);
		if (ret)
			platform_driver_unregister(&bench_driver);
	}
	if (ret)
		debugfs_remove_recursive(debug_root);
	return ret;
}

static void __exit bench_exit(void)
{
	platform_device_unregister(platform);
	platform_driver_unregister(&bench_driver);
	debugfs_remove_recursive(debug_root);
}

module_init(bench_init);
module_exit(bench_exit);
MODULE_DESCRIPTION("SPI converters for tests");
MODULE_LICENSE("GPL");
