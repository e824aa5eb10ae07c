// SPDX-License-Identifier: GPL-2.0
/*
 * Converters of the industrial I/O subsystem whose samples and thresholds a
 * test can choose. They differ in how a sample is laid out in the buffer and
 * in which event files they have; the table `plans` lists them.
 *
 * Sampling is triggered from outside (an hrtimer trigger), one scan of the
 * enabled channels per tick. A threshold event is sent at the moment when the
 * test moves a channel's value over an enabled threshold, and, where the test
 * says so, also when an event is enabled whose threshold is crossed already.
 */
#include <linux/debugfs.h>
#include <linux/iio/buffer.h>
#include <linux/iio/buffer_impl.h>
#include <linux/iio/events.h>
#include <linux/iio/iio.h>
#include <linux/iio/trigger_consumer.h>
#include <linux/iio/triggered_buffer.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/platform_device.h>

#define CHANNELS 4

enum event_files { EVENTS_NONE, EVENTS_SEPARATE, EVENTS_EITHER };

struct layout {
	enum iio_endian endianness;
	u8 realbits, storagebits, shift;
};

struct adc_plan {
	const char *name;
	struct layout layout;
	enum event_files events;
	bool single; /* one channel without a number: in_voltage_raw */
	bool extended; /* the last channel is called in_voltage3_loop */
};

static const struct adc_plan plans[] = {
	{ "bench-adc-le12", { IIO_LE, 12, 16, 0 }, EVENTS_SEPARATE },
	{ "bench-adc-be12", { IIO_BE, 12, 16, 4 }, EVENTS_EITHER,
	  .extended = true },
	{ "bench-adc-le24", { IIO_LE, 24, 24, 0 }, EVENTS_NONE },
	{ "bench-adc-be24", { IIO_BE, 20, 24, 4 }, EVENTS_NONE },
	{ "bench-adc-be32", { IIO_BE, 32, 32, 0 }, EVENTS_NONE },
	{ "bench-adc-u8", { IIO_LE, 8, 8, 0 }, EVENTS_NONE },
	{ "bench-adc-single", { IIO_LE, 10, 16, 6 }, EVENTS_NONE,
	  .single = true },
	/* Sixteen of a kind, to be sampled at the same time. */
	{ "bench-adc-row0", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row1", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row2", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row3", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row4", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row5", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row6", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row7", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row8", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row9", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row10", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row11", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row12", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row13", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row14", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
	{ "bench-adc-row15", { IIO_LE, 12, 16, 0 }, EVENTS_NONE },
};

struct adc_channel {
	struct bench_adc *adc;
	unsigned int number;
	u32 value;
	int rising, falling;
	bool rising_en, falling_en, either_en;
	u32 events; /* how many were sent */
};

struct bench_adc {
	struct iio_dev *indio;
	const struct adc_plan *plan;
	struct mutex lock; /* guards the channels and settings */
	struct adc_channel channels[CHANNELS];
	struct iio_chan_spec specs[CHANNELS + 2];
	u32 raw_error; /* errno that reading a raw value fails with, or 0 */
	u32 event_error; /* errno that writing event files fails with, or 0 */
	u32 top; /* thresholds above it, or below 0, are refused; 0 for none */
	bool level_events; /* a level beyond a threshold is an event by itself */
	u32 samples; /* scans taken for the buffer */
	u32 lost; /* those among them that it had no room for */
	bool changed; /* a value is another than in the last scan */
	u64 changed_ns; /* when the last such scan went to the buffer */
	int frequency;
	int period;
	int integration[2];
	struct dentry *dir;
};

static struct platform_device *devices[ARRAY_SIZE(plans)];
static struct dentry *debug_root;

static const struct iio_event_spec separate_events[] = {
	{ .type = IIO_EV_TYPE_THRESH, .dir = IIO_EV_DIR_RISING,
	  .mask_separate = BIT(IIO_EV_INFO_VALUE) | BIT(IIO_EV_INFO_ENABLE) },
	{ .type = IIO_EV_TYPE_THRESH, .dir = IIO_EV_DIR_FALLING,
	  .mask_separate = BIT(IIO_EV_INFO_VALUE) | BIT(IIO_EV_INFO_ENABLE) },
};

static const struct iio_event_spec either_events[] = {
	{ .type = IIO_EV_TYPE_THRESH, .dir = IIO_EV_DIR_RISING,
	  .mask_separate = BIT(IIO_EV_INFO_VALUE) },
	{ .type = IIO_EV_TYPE_THRESH, .dir = IIO_EV_DIR_FALLING,
	  .mask_separate = BIT(IIO_EV_INFO_VALUE) },
	{ .type = IIO_EV_TYPE_THRESH, .dir = IIO_EV_DIR_EITHER,
	  .mask_separate = BIT(IIO_EV_INFO_ENABLE),
	  .mask_shared_by_type = BIT(IIO_EV_INFO_PERIOD) },
};

/* Values and the events that follow from changing them */

static void send_event(struct adc_channel *c, enum iio_event_direction dir)
{
	c->events++;
	iio_push_event(c->adc->indio,
		       IIO_UNMOD_EVENT_CODE(IIO_VOLTAGE, c->number,
					    IIO_EV_TYPE_THRESH, dir),
		       iio_get_time_ns(c->adc->indio));
}

static int value_set(void *data, u64 value)
{
	struct adc_channel *c = data;
	s64 before, after = (u32)value;

	mutex_lock(&c->adc->lock);
	before = c->value;
	c->value = value;
	c->adc->changed |= before != after;
	if ((c->rising_en || c->either_en) && before <= c->rising &&
	    after > c->rising)
		send_event(c, IIO_EV_DIR_RISING);
	else if ((c->falling_en || c->either_en) && before >= c->falling &&
		 after < c->falling)
		send_event(c, IIO_EV_DIR_FALLING);
	mutex_unlock(&c->adc->lock);
	return 0;
}

static int value_get(void *data, u64 *value)
{
	*value = ((struct adc_channel *)data)->value;
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(value_ops, value_get, value_set, "%llu\n");

/* Attributes */

static int bench_read_raw(struct iio_dev *indio,
			  const struct iio_chan_spec *chan, int *val, int *val2,
			  long mask)
{
	struct bench_adc *adc = iio_priv(indio);

	switch (mask) {
	case IIO_CHAN_INFO_RAW:
		if (adc->raw_error)
			return -(int)adc->raw_error;
		*val = adc->channels[chan->channel].value;
		return IIO_VAL_INT;
	case IIO_CHAN_INFO_SAMP_FREQ:
		*val = adc->frequency;
		return IIO_VAL_INT;
	case IIO_CHAN_INFO_INT_TIME:
		*val = adc->integration[0];
		*val2 = adc->integration[1];
		return IIO_VAL_INT_PLUS_MICRO;
	default:
		return -EINVAL;
	}
}

static int bench_write_raw(struct iio_dev *indio,
			   const struct iio_chan_spec *chan, int val, int val2,
			   long mask)
{
	struct bench_adc *adc = iio_priv(indio);

	switch (mask) {
	case IIO_CHAN_INFO_SAMP_FREQ:
		adc->frequency = val;
		return 0;
	case IIO_CHAN_INFO_INT_TIME:
		adc->integration[0] = val;
		adc->integration[1] = val2;
		return 0;
	default:
		return -EINVAL;
	}
}

static bool *enable_flag(struct adc_channel *c, enum iio_event_direction dir)
{
	switch (dir) {
	case IIO_EV_DIR_RISING:
		return &c->rising_en;
	case IIO_EV_DIR_FALLING:
		return &c->falling_en;
	default:
		return &c->either_en;
	}
}

static int bench_read_event_config(struct iio_dev *indio,
				   const struct iio_chan_spec *chan,
				   enum iio_event_type type,
				   enum iio_event_direction dir)
{
	struct bench_adc *adc = iio_priv(indio);

	return *enable_flag(&adc->channels[chan->channel], dir);
}

/* What a converter sends that compares levels instead of crossings. */
static void send_for_level(struct adc_channel *c)
{
	s64 value = c->value;

	if ((c->rising_en || c->either_en) && value > c->rising)
		send_event(c, IIO_EV_DIR_RISING);
	else if ((c->falling_en || c->either_en) && value < c->falling)
		send_event(c, IIO_EV_DIR_FALLING);
}

static int bench_write_event_config(struct iio_dev *indio,
				    const struct iio_chan_spec *chan,
				    enum iio_event_type type,
				    enum iio_event_direction dir, int state)
{
	struct bench_adc *adc = iio_priv(indio);

	if (adc->event_error)
		return -(int)adc->event_error;
	mutex_lock(&adc->lock);
	*enable_flag(&adc->channels[chan->channel], dir) = state;
	if (state && adc->level_events)
		send_for_level(&adc->channels[chan->channel]);
	mutex_unlock(&adc->lock);
	return 0;
}

static int *event_number(struct bench_adc *adc,
			 const struct iio_chan_spec *chan,
			 enum iio_event_direction dir, enum iio_event_info info)
{
	struct adc_channel *c = &adc->channels[chan->channel];

	if (info == IIO_EV_INFO_PERIOD)
		return &adc->period;
	return dir == IIO_EV_DIR_RISING ? &c->rising : &c->falling;
}

static int bench_read_event_value(struct iio_dev *indio,
				  const struct iio_chan_spec *chan,
				  enum iio_event_type type,
				  enum iio_event_direction dir,
				  enum iio_event_info info, int *val, int *val2)
{
	*val = *event_number(iio_priv(indio), chan, dir, info);
	return IIO_VAL_INT;
}

static int bench_write_event_value(struct iio_dev *indio,
				   const struct iio_chan_spec *chan,
				   enum iio_event_type type,
				   enum iio_event_direction dir,
				   enum iio_event_info info, int val, int val2)
{
	struct bench_adc *adc = iio_priv(indio);

	if (adc->event_error)
		return -(int)adc->event_error;
	if (info == IIO_EV_INFO_VALUE && adc->top &&
	    (val < 0 || val > (int)adc->top))
		return -EINVAL;
	mutex_lock(&adc->lock);
	*event_number(adc, chan, dir, info) = val;
	mutex_unlock(&adc->lock);
	return 0;
}

static const struct iio_info bench_info = {
	.read_raw = bench_read_raw,
	.write_raw = bench_write_raw,
	.read_event_config = bench_read_event_config,
	.write_event_config = bench_write_event_config,
	.read_event_value = bench_read_event_value,
	.write_event_value = bench_write_event_value,
};

/* Samples */

static void put_sample(u8 *to, u32 value, const struct layout *layout)
{
	unsigned int bytes = layout->storagebits / 8, i;
	u32 word = value << layout->shift;

	for (i = 0; i < bytes; i++)
		to[layout->endianness == IIO_BE ? bytes - 1 - i : i] =
			word >> (8 * i);
}

static irqreturn_t take_scan(int irq, void *data)
{
	struct iio_dev *indio = ((struct iio_poll_func *)data)->indio_dev;
	struct bench_adc *adc = iio_priv(indio);
	const struct layout *layout = &adc->plan->layout;
	u8 scan[CHANNELS * 4 + 8] __aligned(8) = {};
	unsigned int at = 0, i;

	mutex_lock(&adc->lock);
	for_each_set_bit(i, indio->active_scan_mask, indio->masklength) {
		put_sample(scan + at, adc->channels[i].value, layout);
		at += layout->storagebits / 8;
	}
	adc->samples++;
	if (adc->changed)
		adc->changed_ns = ktime_get_ns();
	adc->changed = false;
	mutex_unlock(&adc->lock);
	if (iio_push_to_buffers_with_timestamp(indio, scan,
					       iio_get_time_ns(indio)))
		adc->lost++;
	iio_trigger_notify_done(indio->trig);
	return IRQ_HANDLED;
}

/* The core rounds the size of a scan as if every sample had a power of two
 * of bytes; three-byte samples get their real size back here. */
static int use_real_scan_size(struct iio_dev *indio)
{
	struct bench_adc *adc = iio_priv(indio);
	struct iio_buffer *buffer = indio->buffer;
	unsigned int scan;

	if (adc->plan->layout.storagebits != 24)
		return 0;
	scan = 3 * bitmap_weight(indio->active_scan_mask, indio->masklength);
	buffer->access->set_bytes_per_datum(buffer, scan);
	return buffer->access->request_update(buffer);
}

static const struct iio_buffer_setup_ops buffer_ops = {
	.preenable = use_real_scan_size,
};

/* Making a device of a plan */

static void fill_channel(struct bench_adc *adc, unsigned int i)
{
	const struct adc_plan *plan = adc->plan;
	struct iio_chan_spec *chan = &adc->specs[i];

	chan->type = IIO_VOLTAGE;
	chan->indexed = !plan->single;
	chan->channel = i;
	chan->scan_index = i;
	chan->scan_type.sign = 'u';
	chan->scan_type.realbits = plan->layout.realbits;
	chan->scan_type.storagebits = plan->layout.storagebits;
	chan->scan_type.shift = plan->layout.shift;
	chan->scan_type.endianness = plan->layout.endianness;
	chan->info_mask_separate = BIT(IIO_CHAN_INFO_RAW);
	if (plan->extended && i == CHANNELS - 1)
		chan->extend_name = "loop";
	if (plan->events == EVENTS_SEPARATE) {
		chan->info_mask_shared_by_type = BIT(IIO_CHAN_INFO_SAMP_FREQ);
		chan->event_spec = separate_events;
		chan->num_event_specs = ARRAY_SIZE(separate_events);
	} else if (plan->events == EVENTS_EITHER) {
		chan->info_mask_shared_by_all = BIT(IIO_CHAN_INFO_SAMP_FREQ);
		chan->event_spec = either_events;
		chan->num_event_specs = ARRAY_SIZE(either_events);
	}
}

/* A proximity channel is there only for its integration time. */
static void fill_proximity(struct iio_chan_spec *chan)
{
	chan->type = IIO_PROXIMITY;
	chan->scan_index = -1;
	chan->info_mask_shared_by_type = BIT(IIO_CHAN_INFO_INT_TIME);
}

static void fill_timestamp(struct iio_chan_spec *chan)
{
	*chan = (struct iio_chan_spec)IIO_CHAN_SOFT_TIMESTAMP(CHANNELS);
}

static void add_debug_files(struct bench_adc *adc, unsigned int channels)
{
	unsigned int i;

	adc->dir = debugfs_create_dir(adc->plan->name, debug_root);
	debugfs_create_u32("raw_error", 0644, adc->dir, &adc->raw_error);
	debugfs_create_u32("event_error", 0644, adc->dir, &adc->event_error);
	debugfs_create_u32("top", 0644, adc->dir, &adc->top);
	debugfs_create_bool("level_events", 0644, adc->dir, &adc->level_events);
	debugfs_create_u32("samples", 0444, adc->dir, &adc->samples);
	debugfs_create_u32("lost", 0444, adc->dir, &adc->lost);
	debugfs_create_u64("changed_ns", 0444, adc->dir, &adc->changed_ns);
	for (i = 0; i < channels; i++) {
		char name[12];
		struct dentry *dir;

		snprintf(name, sizeof(name), "%u", i);
		dir = debugfs_create_dir(name, adc->dir);
		debugfs_create_file_unsafe("value", 0644, dir,
					   &adc->channels[i], &value_ops);
		debugfs_create_u32("events", 0444, dir,
				   &adc->channels[i].events);
	}
}

static void remove_debug_files(void *adc)
{
	debugfs_remove_recursive(((struct bench_adc *)adc)->dir);
}

static int bench_probe(struct platform_device *pdev)
{
	const struct adc_plan *plan = &plans[pdev->id];
	unsigned int i, channels = plan->single ? 1 : CHANNELS;
	struct device *dev = &pdev->dev;
	struct iio_dev *indio;
	struct bench_adc *adc;
	int ret;

	indio = devm_iio_device_alloc(dev, sizeof(*adc));
	if (!indio)
		return -ENOMEM;
	adc = iio_priv(indio);
	adc->indio = indio;
	adc->plan = plan;
	mutex_init(&adc->lock);
	for (i = 0; i < channels; i++) {
		adc->channels[i].adc = adc;
		adc->channels[i].number = i;
		fill_channel(adc, i);
	}
	indio->num_channels = channels;
	if (plan->events == EVENTS_SEPARATE) {
		fill_proximity(&adc->specs[indio->num_channels++]);
		fill_timestamp(&adc->specs[indio->num_channels++]);
	}
	indio->name = plan->name;
	indio->info = &bench_info;
	indio->modes = INDIO_DIRECT_MODE;
	indio->channels = adc->specs;

	add_debug_files(adc, channels);
	ret = devm_add_action_or_reset(dev, remove_debug_files, adc);
	if (ret)
		return ret;
	ret = devm_iio_triggered_buffer_setup(dev, indio, NULL, take_scan,
					      &buffer_ops);
	if (ret)
		return ret;
	return devm_iio_device_register(dev, indio);
}

static struct platform_driver bench_driver = {
	.probe = bench_probe,
	.driver = { .name = "bench-adc" },
};

static void remove_devices(void)
{
	unsigned int i;

	for (i = 0; i < ARRAY_SIZE(plans); i++)
		if (!IS_ERR_OR_NULL(devices[i]))
			platform_device_unregister(devices[i]);
}

static int __init bench_init(void)
{
	unsigned int i;
	int ret;

	debug_root = debugfs_create_dir("bench-adc", NULL);
	ret = platform_driver_register(&bench_driver);
	if (ret)
		goto remove_root;
	for (i = 0; i < ARRAY_SIZE(plans); i++) {
		devices[i] = platform_device_register_simple("bench-adc", i,
							     NULL, 0);
		if (IS_ERR(devices[i])) {
			ret = PTR_ERR(devices[i]);
			goto remove_all;
		}
	}
	return 0;

remove_all:
	remove_devices();
	platform_driver_unregister(&bench_driver);
remove_root:
	debugfs_remove_recursive(debug_root);
	return ret;
}

static void __exit bench_exit(void)
{
	remove_devices();
	platform_driver_unregister(&bench_driver);
	debugfs_remove_recursive(debug_root);
}

module_init(bench_init);
module_exit(bench_exit);
MODULE_DESCRIPTION("Industrial I/O converters for tests");
MODULE_LICENSE("GPL");
