// SPDX-License-Identifier: GPL-2.0 OR MIT
/*
 * Reference driver of the AOV node: a misc device "kelo_aov" that answers the
 * seven requests of the AOV library. A kernel timer produces one event per
 * frame of the started session into a bounded queue (the oldest event is
 * overwritten when it is full); a dequeue writes the event's words into the
 * caller's record and its data areas through the record's ten addresses.
 *
 * Locking:
 *  - aov.lock (mutex) guards the session: started, owner, the session's words,
 *    the fill page, the held flag and each open file's aov_file, and
 *    serialises START, STOP, release and the dequeue's copies to user space.
 *  - aov.qlock (spinlock; _bh in process context, as the timer takes it)
 *    guards the pending queue, the sequence number, the readiness and error
 *    flags, the ticking flag and the counters.
 *  - The timer is re-armed only under qlock with ticking set. It is stopped
 *    by clearing ticking under qlock and then del_timer_sync() outside it, so
 *    no tick survives a STOP, a release or the module's exit.
 * The device is one static object. The module cannot be unloaded while a file
 * is open (fops.owner), and its exit stops the timer after the node is gone,
 * so neither a release nor a tick can touch freed memory.
 */

#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/debugfs.h>
#include <linux/fs.h>
#include <linux/jiffies.h>
#include <linux/kernel.h>
#include <linux/math64.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/poll.h>
#include <linux/sched/signal.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/timer.h>
#include <linux/uaccess.h>
#include <linux/wait.h>

#include "kelo_aov.h"

#define AOV_MAX_QUEUE_DEPTH 64
#define AOV_MIN_FRAME_RATE 1
#define AOV_MAX_FRAME_RATE 30
#define AOV_OVERRUN_BYTES 64
#define AOV_STAMP_MAGIC 0x53564F41 /* "AOVS" in memory order */

/* Event period and content. */
static unsigned int period_ms;
module_param(period_ms, uint, 0444);
MODULE_PARM_DESC(period_ms, "event period in ms; 0: one event per frame of the started rate");

static unsigned int queue_depth = 4;
module_param(queue_depth, uint, 0444);
MODULE_PARM_DESC(queue_depth, "events held before the oldest is overwritten (1 to 64)");

static unsigned int content_every = 1;
module_param(content_every, uint, 0444);
MODULE_PARM_DESC(content_every, "every n-th event carries section content (0: none)");

static unsigned int session_events;
module_param(session_events, uint, 0644);
MODULE_PARM_DESC(session_events, "events a session produces before the timer stops (0: no limit)");

static unsigned int first_gap_ms;
module_param(first_gap_ms, uint, 0444);
MODULE_PARM_DESC(first_gap_ms, "the wait between a session's first and second event in ms (0: one period)");

/*
 * Injected driver bugs, one parameter each. insmod takes the dashed names
 * too ("overrun-area=1"), as the kernel treats '-' and '_' alike in them.
 */
static bool overrun_area;
module_param(overrun_area, bool, 0444);
MODULE_PARM_DESC(overrun_area, "bug: section 2 is written 64 bytes past its area");

static bool accept_unknown_code;
module_param(accept_unknown_code, bool, 0444);
MODULE_PARM_DESC(accept_unknown_code, "bug: unknown requests return 0");

static bool accept_wrong_size;
module_param(accept_wrong_size, bool, 0444);
MODULE_PARM_DESC(accept_wrong_size, "bug: requests are told apart by number only");

static bool no_readiness;
module_param(no_readiness, bool, 0444);
MODULE_PARM_DESC(no_readiness, "bug: poll never reports an event");

static bool readable_after_drain;
module_param(readable_after_drain, bool, 0444);
MODULE_PARM_DESC(readable_after_drain, "bug: the node stays readable once drained");

static bool events_after_stop;
module_param(events_after_stop, bool, 0444);
MODULE_PARM_DESC(events_after_stop, "bug: STOP leaves the timer producing events");

static bool ignore_area_fault;
module_param(ignore_area_fault, bool, 0444);
MODULE_PARM_DESC(ignore_area_fault, "bug: an area that faults is skipped, the dequeue succeeds");

static bool hang_sensor_off;
module_param(hang_sensor_off, bool, 0444);
MODULE_PARM_DESC(hang_sensor_off, "bug: SENSOR_OFF never returns (until the caller is killed)");

static bool block_empty_dequeue;
module_param(block_empty_dequeue, bool, 0444);
MODULE_PARM_DESC(block_empty_dequeue, "bug: a dequeue with nothing pending blocks until STOP");

static bool keep_session_on_close;
module_param(keep_session_on_close, bool, 0444);
MODULE_PARM_DESC(keep_session_on_close, "bug: the last close leaves the session running");

static bool overrun_buffer;
module_param(overrun_buffer, bool, 0444);
MODULE_PARM_DESC(overrun_buffer, "bug: section 10 is written 64 bytes past the event buffer");

static bool refuse_rdwr;
module_param(refuse_rdwr, bool, 0444);
MODULE_PARM_DESC(refuse_rdwr, "bug: an open for writing is refused with EACCES");

static bool hang_release;
module_param(hang_release, bool, 0444);
MODULE_PARM_DESC(hang_release, "bug: the release of the last open file waits for an ack that never comes");

static bool hang_flush;
module_param(hang_flush, bool, 0444);
MODULE_PARM_DESC(hang_flush, "bug: the flush of every close waits for an ack that never comes");

static bool flush_busy;
module_param(flush_busy, bool, 0444);
MODULE_PARM_DESC(flush_busy, "bug: a close of the started file fails with EBUSY");

static bool wrong_errno;
module_param(wrong_errno, bool, 0444);
MODULE_PARM_DESC(wrong_errno, "bug: unknown requests fail with EINVAL instead of ENOTTY");

static bool positive_success;
module_param(positive_success, bool, 0444);
MODULE_PARM_DESC(positive_success, "bug: every request that succeeds returns 1");

static bool refuse_full_content;
module_param(refuse_full_content, bool, 0444);
MODULE_PARM_DESC(refuse_full_content, "bug: START with the full-content mode fails with EINVAL");

static bool missing_ulposc3;
module_param(missing_ulposc3, bool, 0444);
MODULE_PARM_DESC(missing_ulposc3, "bug: ULPOSC3_ON and ULPOSC3_OFF are unknown requests");

static bool refuse_sensor_id_0;
module_param(refuse_sensor_id_0, bool, 0444);
MODULE_PARM_DESC(refuse_sensor_id_0, "bug: a sensor list holding id 0 fails with EINVAL");

static bool sensor_count_off_by_one;
module_param(sensor_count_off_by_one, bool, 0444);
MODULE_PARM_DESC(sensor_count_off_by_one, "bug: a sensor list of 64 ids fails with EINVAL");

static bool lenient_sensor_count;
module_param(lenient_sensor_count, bool, 0444);
MODULE_PARM_DESC(lenient_sensor_count, "bug: a count of 0 is a no-op, one above 64 is clamped");

static bool stop_needs_ulposc3;
module_param(stop_needs_ulposc3, bool, 0444);
MODULE_PARM_DESC(stop_needs_ulposc3, "bug: STOP with ULPOSC3 off fails with EIO, the session runs on");

static bool refuse_idle_stop;
module_param(refuse_idle_stop, bool, 0444);
MODULE_PARM_DESC(refuse_idle_stop, "bug: STOP without a session fails with EINVAL");

static bool start_once_per_open;
module_param(start_once_per_open, bool, 0444);
MODULE_PARM_DESC(start_once_per_open, "bug: START after a STOP on the same open file fails with EINVAL");

static bool busy_after_started_close;
module_param(busy_after_started_close, bool, 0444);
MODULE_PARM_DESC(busy_after_started_close, "bug: a release while started leaves the node held (EBUSY)");

static bool basic_sections_only;
module_param(basic_sections_only, bool, 0444);
MODULE_PARM_DESC(basic_sections_only, "bug: dequeuing a full-content event fails with EINVAL");

static bool leak_padding;
module_param(leak_padding, bool, 0444);
MODULE_PARM_DESC(leak_padding, "bug: the dequeue record's padding comes back with stale bytes");

static bool area_fault_eio;
module_param(area_fault_eio, bool, 0444);
MODULE_PARM_DESC(area_fault_eio, "bug: an area that faults fails the dequeue with EIO");

static bool stuck_after_area_fault;
module_param(stuck_after_area_fault, bool, 0444);
MODULE_PARM_DESC(stuck_after_area_fault, "bug: after an area faults, every dequeue fails with EBUSY");

static bool readable_when_stopped;
module_param(readable_when_stopped, bool, 0444);
MODULE_PARM_DESC(readable_when_stopped, "bug: poll reports readable while no session runs");

static bool pollerr_after_error;
module_param(pollerr_after_error, bool, 0444);
MODULE_PARM_DESC(pollerr_after_error, "bug: after an area faults (the event kept), poll reports an error until START");

static bool wake_pollin_waiters_only;
module_param(wake_pollin_waiters_only, bool, 0444);
MODULE_PARM_DESC(wake_pollin_waiters_only, "bug: a poller that did not ask for POLLIN is never queued");

static bool accept_null_sensor_list;
module_param(accept_null_sensor_list, bool, 0444);
MODULE_PARM_DESC(accept_null_sensor_list, "bug: a null sensor list is taken for none and returns 0");

static bool dequeue_keeps_event;
module_param(dequeue_keeps_event, bool, 0444);
MODULE_PARM_DESC(dequeue_keeps_event, "bug: a dequeue hands out the oldest event without removing it");

/* How long a wait that is never woken lasts at most (the hang bugs). */
static unsigned int hang_ms = 5000;
module_param(hang_ms, uint, 0444);
MODULE_PARM_DESC(hang_ms, "the longest a hanging flush or release waits, in ms");

struct aov_counters {
	u64 requests;
	u64 failed_requests;
	u64 produced;
	u64 dequeued;
	u64 overruns;
	u64 lost_on_failure;
	u64 discarded_at_stop;
};

struct aov_session {
	s32 sensor_id;
	s32 scenario;
	s32 frame_rate;
	s32 aov_mode;
	u32 frame_info[4];
};

/* What the first bytes of every data area hold; the rest is one fill byte. */
struct aov_stamp {
	u32 magic;
	u32 sequence;
	u32 section;
	u32 bytes;
};

struct aov_device {
	struct mutex lock;		/* the session and the copies out */
	bool started;			/* written under lock and qlock */
	struct file *owner;		/* lock: the file that started the session */
	struct aov_session session;	/* lock */
	u8 *fill;			/* lock: one page of area content */
	bool ulposc3_on;		/* lock */
	bool held;			/* lock: a buggy release kept the node */

	spinlock_t qlock;		/* the queue, timer state, counters */
	u32 pending[AOV_MAX_QUEUE_DEPTH]; /* qlock: sequence numbers, a ring */
	unsigned int head;		/* qlock */
	unsigned int count;		/* qlock */
	u32 sequence;			/* qlock: of the last event produced */
	bool ready;			/* qlock: what poll reports */
	bool ticking;			/* qlock: the timer re-arms itself */
	bool dequeue_stuck;		/* qlock: a buggy error path left it set */
	bool error_latched;		/* qlock: an area faulted since START */
	unsigned long period;		/* qlock: in jiffies */
	struct aov_counters stats;	/* qlock */
	unsigned int open_files;	/* qlock */

	struct timer_list timer;
	wait_queue_head_t wq;		/* pollers and blocked dequeues */
	struct dentry *debugfs;
};

static struct aov_device aov;

/* What the driver keeps per open file. */
struct aov_file {
	bool stopped;			/* aov.lock: a STOP came through it */
};

static void aov_queue_event_locked(struct aov_device *dev)
{
	unsigned int depth = clamp_val(queue_depth, 1, AOV_MAX_QUEUE_DEPTH);

	dev->sequence++;
	if (dev->count >= depth) {
		dev->head = (dev->head + 1) % AOV_MAX_QUEUE_DEPTH;
		dev->count--;
		dev->stats.overruns++;
	}
	dev->pending[(dev->head + dev->count) % AOV_MAX_QUEUE_DEPTH] = dev->sequence;
	dev->count++;
	dev->stats.produced++;
	dev->ready = true;
}

static void aov_tick(struct timer_list *timer)
{
	struct aov_device *dev = from_timer(dev, timer, timer);
	unsigned int limit = READ_ONCE(session_events);
	bool queued = false;

	spin_lock(&dev->qlock);
	if (dev->ticking && limit && dev->sequence >= limit)
		dev->ticking = false;
	if (dev->ticking) {
		unsigned long next = dev->period;

		aov_queue_event_locked(dev);
		if (dev->sequence == 1 && first_gap_ms)
			next = msecs_to_jiffies(first_gap_ms);
		mod_timer(&dev->timer, jiffies + next);
		queued = true;
	}
	spin_unlock(&dev->qlock);
	if (queued)
		wake_up_interruptible(&dev->wq);
}

/* Stops the timer; no tick runs once this returns. */
static void aov_stop_timer(struct aov_device *dev)
{
	spin_lock_bh(&dev->qlock);
	dev->ticking = false;
	spin_unlock_bh(&dev->qlock);
	del_timer_sync(&dev->timer);
}

static int aov_start(struct aov_device *dev, struct file *file, void __user *arg)
{
	struct aov_file *priv = file->private_data;
	u8 record[AOV_START_RECORD_SIZE];
	struct aov_start_params params;
	struct aov_session session;
	unsigned long period;

	if (copy_from_user(record, arg, sizeof(record)))
		return -EFAULT;
	aov_start_decode(record, &params);
	session.sensor_id = params.sensor_id;
	session.scenario = params.scenario;
	session.frame_rate = params.frame_rate;
	session.aov_mode = params.aov_mode;
	memcpy(session.frame_info, params.frame_info, sizeof(session.frame_info));

	mutex_lock(&dev->lock);
	if (dev->started) {
		mutex_unlock(&dev->lock);
		return -EBUSY;
	}
	if ((refuse_full_content && session.aov_mode == AOV_MODE_FULL_CONTENT) ||
	    (start_once_per_open && priv->stopped) ||
	    session.frame_rate < AOV_MIN_FRAME_RATE ||
	    session.frame_rate > AOV_MAX_FRAME_RATE) {
		mutex_unlock(&dev->lock);
		return -EINVAL;
	}
	/* A timer left running by a buggy STOP ends before the new session. */
	aov_stop_timer(dev);
	dev->session = session;
	dev->owner = file;
	period = msecs_to_jiffies(period_ms ? period_ms : 1000 / session.frame_rate);
	if (!period)
		period = 1;

	spin_lock_bh(&dev->qlock);
	dev->started = true;
	dev->sequence = 0;
	dev->head = 0;
	dev->count = 0;
	dev->ready = false;
	dev->error_latched = false;
	dev->period = period;
	dev->ticking = true;
	mod_timer(&dev->timer, jiffies + period);
	spin_unlock_bh(&dev->qlock);
	mutex_unlock(&dev->lock);
	return 0;
}

/* Ends the session, discarding what is pending; called with lock held. */
static void aov_end_session(struct aov_device *dev, bool by_request)
{
	bool keep_timer = by_request && events_after_stop && dev->started;

	if (!keep_timer)
		aov_stop_timer(dev);
	spin_lock_bh(&dev->qlock);
	dev->stats.discarded_at_stop += dev->count;
	dev->head = 0;
	dev->count = 0;
	dev->ready = false;
	dev->started = false;
	if (keep_timer)
		aov_queue_event_locked(dev);	/* the frame in flight */
	spin_unlock_bh(&dev->qlock);
	dev->owner = NULL;
	/* Pollers, and dequeues blocked killably, see the session gone. */
	wake_up(&dev->wq);
}

static int aov_stop(struct aov_device *dev, struct file *file)
{
	struct aov_file *priv = file->private_data;
	int ret = 0;

	mutex_lock(&dev->lock);
	priv->stopped = true;
	if (!dev->started && refuse_idle_stop)
		ret = -EINVAL;
	else if (dev->started && !dev->ulposc3_on && stop_needs_ulposc3)
		ret = -EIO;	/* the sensor is asked to stop over a clock that is off */
	else
		aov_end_session(dev, true);
	mutex_unlock(&dev->lock);
	return ret;
}

static int aov_sensors(struct aov_device *dev, unsigned int cmd, void __user *arg)
{
	struct aov_sensor_list list;

	u32 max = AOV_MAX_SENSORS_PER_REQUEST;
	u32 i;

	if (!arg && accept_null_sensor_list)
		return 0;	/* "no list: no sensors to switch" */
	if (copy_from_user(&list, arg, sizeof(list)))
		return -EFAULT;
	if (lenient_sensor_count) {
		if (!list.count)
			return 0;
		list.count = min_t(u32, list.count, AOV_MAX_SENSORS_PER_REQUEST);
	}
	/* The off-by-one bug checks "count >= max". */
	if (sensor_count_off_by_one)
		max--;
	if (list.count < 1 || list.count > max)
		return -EINVAL;
	for (i = 0; refuse_sensor_id_0 && i < list.count; i++) {
		if (!list.sensor_ids[i])
			return -EINVAL;	/* 0 taken for "no sensor" */
	}
	if (cmd == AOV_IOC_SENSOR_OFF && hang_sensor_off) {
		/* Never woken: only a fatal signal ends the wait. */
		wait_event_killable(dev->wq, false);
		return -EINTR;
	}
	return 0;
}

static int aov_ulposc3(struct aov_device *dev, bool on)
{
	mutex_lock(&dev->lock);
	dev->ulposc3_on = on;
	mutex_unlock(&dev->lock);
	return 0;
}

/* The caller's address of section s's data area, as a user pointer. */
static void __user *aov_area_of(const struct aov_event_query *query, unsigned int s)
{
	return u64_to_user_ptr((u64)(uintptr_t)aov_query_area(query, s));
}

static void aov_set_info(struct aov_event_query *query,
			 const struct aov_section_desc *section, u32 word, u32 value)
{
	memcpy((u8 *)query + section->query_info_offset + word * sizeof(u32),
	       &value, sizeof(value));
}

/* Writes the stamp and fill of one area; 0, or -EFAULT when it faults. */
static int aov_write_area(struct aov_device *dev, void __user *area, u32 bytes,
			  u32 sequence, u32 section)
{
	struct aov_stamp stamp = {
		.magic = AOV_STAMP_MAGIC,
		.sequence = sequence,
		.section = section,
		.bytes = bytes,
	};
	u8 fill = (u8)(sequence * 13u + section * 7u + 1u);
	u32 done = 0;

	memset(dev->fill, fill, PAGE_SIZE);
	memcpy(dev->fill, &stamp, sizeof(stamp));
	while (done < bytes) {
		u32 chunk = min_t(u32, bytes - done, PAGE_SIZE);

		if (copy_to_user(area + done, dev->fill, chunk))
			return -EFAULT;
		if (!done)
			memset(dev->fill, fill, sizeof(stamp));
		done += chunk;
		if (fatal_signal_pending(current))
			return -EINTR;
	}
	return 0;
}

/*
 * With the bug that makes an empty dequeue block: waits until the session
 * ends or the caller is killed, new events or not.
 */
static int aov_block_if_empty(struct aov_device *dev)
{
	bool pending;

	spin_lock_bh(&dev->qlock);
	pending = dev->count > 0;
	spin_unlock_bh(&dev->qlock);
	if (pending || !block_empty_dequeue)
		return 0;
	return wait_event_killable(dev->wq, !READ_ONCE(dev->started));
}

static int aov_fail_event_locked(struct aov_device *dev)
{
	spin_lock_bh(&dev->qlock);
	dev->stats.lost_on_failure++;
	spin_unlock_bh(&dev->qlock);
	return -EFAULT;
}

/*
 * An area of event seq could not be written. The event is lost, or with the
 * error-latching bug put back at the head; the other error-path bugs answer
 * EIO or leave every later dequeue failing.
 */
static int aov_area_fault_locked(struct aov_device *dev, u32 seq)
{
	unsigned int depth = clamp_val(queue_depth, 1, AOV_MAX_QUEUE_DEPTH);
	bool kept = false;

	spin_lock_bh(&dev->qlock);
	if (pollerr_after_error && dev->count < depth) {
		dev->head = (dev->head + AOV_MAX_QUEUE_DEPTH - 1) % AOV_MAX_QUEUE_DEPTH;
		dev->pending[dev->head] = seq;
		dev->count++;
		dev->ready = true;
		kept = true;
	} else {
		dev->stats.lost_on_failure++;
	}
	dev->error_latched = true;
	if (stuck_after_area_fault)
		dev->dequeue_stuck = true;
	spin_unlock_bh(&dev->qlock);
	if (kept)
		wake_up_interruptible(&dev->wq);
	return area_fault_eio ? -EIO : -EFAULT;
}

/* Stale bytes of an earlier record in the padding before each address. */
static void aov_leak_padding(struct aov_event_query *query)
{
	u8 *bytes = (u8 *)query;
	unsigned int s;
	u32 i;

	for (s = 0; s < AOV_SECTION_COUNT; s++) {
		const struct aov_section_desc *section = &aov_event_sections[s];
		u32 from = section->query_info_offset + section->info_words * sizeof(u32);

		for (i = from; i < section->query_addr_offset; i++)
			bytes[i] = 0xC0 + i % 16;
	}
}

static int aov_dequeue(struct aov_device *dev, void __user *arg)
{
	struct aov_event_query query;
	struct aov_session *session = &dev->session;
	unsigned int sections, s;
	bool content, full;
	u32 seq, rate;
	int ret;

	if (copy_from_user(&query, arg, sizeof(query)))
		return -EFAULT;
	ret = aov_block_if_empty(dev);
	if (ret)
		return ret;

	mutex_lock(&dev->lock);
	if (!dev->started) {
		ret = -EINVAL;
		goto out;
	}
	spin_lock_bh(&dev->qlock);
	if (dev->dequeue_stuck) {
		spin_unlock_bh(&dev->qlock);
		ret = -EBUSY;
		goto out;
	}
	if (!dev->count) {
		spin_unlock_bh(&dev->qlock);
		ret = -EAGAIN;
		goto out;
	}
	seq = dev->pending[dev->head];
	spin_unlock_bh(&dev->qlock);

	content = content_every && seq % content_every == 0;
	full = content && session->aov_mode == AOV_MODE_FULL_CONTENT;
	sections = full ? AOV_SECTION_COUNT : content ? AOV_BASIC_SECTION_COUNT : 0;
	/* A driver that knows only the first five sections; the event stays. */
	if (full && basic_sections_only) {
		ret = -EINVAL;
		goto out;
	}
	/* An area the event needs has no address: the event stays queued. */
	for (s = 0; s < sections; s++) {
		if (!aov_area_of(&query, s)) {
			ret = -EFAULT;
			goto out;
		}
	}

	spin_lock_bh(&dev->qlock);
	/* The event is copied out; the buggy driver forgets to take it off. */
	if (!dequeue_keeps_event) {
		dev->head = (dev->head + 1) % AOV_MAX_QUEUE_DEPTH;
		dev->count--;
	}
	if (!dev->count && !readable_after_drain)
		dev->ready = false;
	rate = session->frame_rate;
	query.header[0] = seq;
	query.header[1] = session->sensor_id;
	query.header[2] = div_u64((u64)seq * 1000, rate);
	query.header[3] = session->scenario;
	query.header[4] = dev->stats.overruns;
	query.header[5] = content ? 1 : 0;
	spin_unlock_bh(&dev->qlock);

	/* From here on the event is taken: a fault loses it. */
	for (s = 0; s < sections; s++) {
		const struct aov_section_desc *section = &aov_event_sections[s];
		bool overrun = (s == 1 && overrun_area) ||
			       (s == AOV_SECTION_COUNT - 1 && overrun_buffer);
		u32 bytes = section->data_size + (overrun ? AOV_OVERRUN_BYTES : 0);

		ret = aov_write_area(dev, aov_area_of(&query, s), bytes, seq, s + 1);
		if (ret == -EFAULT && ignore_area_fault)
			continue;
		if (ret == -EFAULT) {
			ret = aov_area_fault_locked(dev, seq);
			goto out;
		}
		if (ret) {
			aov_fail_event_locked(dev);
			goto out;
		}
		aov_set_info(&query, section, 0, section->data_size);
	}
	if (content) {
		query.s4_info[1] = session->frame_info[0];
		query.s4_info[2] = session->frame_info[1];
		query.s4_info[3] = seq;
		query.s5_info[1] = session->frame_info[2];
		query.s5_info[2] = session->frame_info[3];
		query.s5_info[3] = seq;
	}
	if (full) {
		query.s6_info[1] = seq;
		query.s6_info[2] = session->sensor_id;
		query.s6_info[3] = session->scenario;
		query.s6_info[4] = rate;
	}
	if (leak_padding)
		aov_leak_padding(&query);
	if (copy_to_user(arg, &query, sizeof(query))) {
		ret = aov_fail_event_locked(dev);
		goto out;
	}
	spin_lock_bh(&dev->qlock);
	dev->stats.dequeued++;
	spin_unlock_bh(&dev->qlock);
	ret = 0;
out:
	mutex_unlock(&dev->lock);
	return ret;
}

/* With the number-only bug, a known number with any size is served as known. */
static unsigned int aov_served_as(unsigned int cmd)
{
	static const unsigned int known[] = {
		AOV_IOC_START, AOV_IOC_SENSOR_ON, AOV_IOC_SENSOR_OFF,
		AOV_IOC_DEQUEUE_EVENT, AOV_IOC_STOP, AOV_IOC_ULPOSC3_ON,
		AOV_IOC_ULPOSC3_OFF,
	};
	unsigned int i;

	if (!accept_wrong_size || _IOC_TYPE(cmd) != 'H')
		return cmd;
	for (i = 0; i < ARRAY_SIZE(known); i++) {
		if (_IOC_NR(known[i]) == _IOC_NR(cmd))
			return known[i];
	}
	return cmd;
}

static long aov_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
	struct aov_device *dev = &aov;
	void __user *uarg = (void __user *)arg;
	long ret;

	spin_lock_bh(&dev->qlock);
	dev->stats.requests++;
	spin_unlock_bh(&dev->qlock);

	/* Requests are told apart by their whole code: number, size, direction. */
	cmd = aov_served_as(cmd);
	/* A driver built before the ULPOSC3 requests existed. */
	if (missing_ulposc3 && (cmd == AOV_IOC_ULPOSC3_ON || cmd == AOV_IOC_ULPOSC3_OFF))
		cmd = 0;
	switch (cmd) {
	case AOV_IOC_START:
		ret = aov_start(dev, file, uarg);
		break;
	case AOV_IOC_STOP:
		ret = aov_stop(dev, file);
		break;
	case AOV_IOC_DEQUEUE_EVENT:
		ret = aov_dequeue(dev, uarg);
		break;
	case AOV_IOC_SENSOR_ON:
	case AOV_IOC_SENSOR_OFF:
		ret = aov_sensors(dev, cmd, uarg);
		break;
	case AOV_IOC_ULPOSC3_ON:
		ret = aov_ulposc3(dev, true);
		break;
	case AOV_IOC_ULPOSC3_OFF:
		ret = aov_ulposc3(dev, false);
		break;
	default:
		if (accept_unknown_code)
			return 0;
		ret = wrong_errno ? -EINVAL : -ENOTTY;
		break;
	}
	if (ret < 0) {
		spin_lock_bh(&dev->qlock);
		dev->stats.failed_requests++;
		spin_unlock_bh(&dev->qlock);
	}
	if (!ret && positive_success)
		ret = 1;
	return ret;
}

static __poll_t aov_poll(struct file *file, poll_table *wait)
{
	struct aov_device *dev = &aov;
	__poll_t mask = 0;

	/*
	 * The waiter-only bug queues a poller only when it asks for input: a
	 * watch added with no events and modified later is never queued, as a
	 * modification does not poll with a queueing table.
	 */
	if (!wake_pollin_waiters_only || (poll_requested_events(wait) & EPOLLIN))
		poll_wait(file, &dev->wq, wait);
	if (no_readiness)
		return 0;
	spin_lock_bh(&dev->qlock);
	if (dev->ready || (readable_when_stopped && !dev->started))
		mask = EPOLLIN | EPOLLRDNORM;
	if (pollerr_after_error && dev->error_latched)
		mask |= EPOLLERR;
	spin_unlock_bh(&dev->qlock);
	return mask;
}

static int aov_open(struct inode *inode, struct file *file)
{
	struct aov_device *dev = &aov;
	struct aov_file *priv;
	bool held;

	if (refuse_rdwr && (file->f_flags & O_ACCMODE) != O_RDONLY)
		return -EACCES;
	mutex_lock(&dev->lock);
	held = dev->held;
	mutex_unlock(&dev->lock);
	if (held)
		return -EBUSY;
	priv = kzalloc(sizeof(*priv), GFP_KERNEL);
	if (!priv)
		return -ENOMEM;
	file->private_data = priv;
	spin_lock_bh(&dev->qlock);
	dev->open_files++;
	spin_unlock_bh(&dev->qlock);
	return nonseekable_open(inode, file);
}

/*
 * The hang bugs wait for an acknowledgment that never comes. The wait ends
 * on a fatal signal, and after hang_ms at most: a process that exits can no
 * longer take a signal, and its files close in its exit.
 */
static void aov_hang(struct aov_device *dev)
{
	long left = wait_event_killable_timeout(dev->wq, false,
						msecs_to_jiffies(hang_ms));

	if (!left)
		pr_info("a hanging wait ended after %u ms\n", hang_ms);
}

/* Every close of a descriptor. */
static int aov_flush(struct file *file, fl_owner_t id)
{
	struct aov_device *dev = &aov;
	bool busy;

	if (hang_flush)
		aov_hang(dev);
	if (!flush_busy)
		return 0;
	mutex_lock(&dev->lock);
	busy = dev->started && dev->owner == file;
	mutex_unlock(&dev->lock);
	return busy ? -EBUSY : 0;
}

/* The last close of a file: a session it started ends here. */
static int aov_release(struct inode *inode, struct file *file)
{
	struct aov_device *dev = &aov;
	bool last;

	spin_lock_bh(&dev->qlock);
	last = dev->open_files == 1;
	spin_unlock_bh(&dev->qlock);
	/* The last user powers the sensor down and waits for it. */
	if (hang_release && last)
		aov_hang(dev);

	mutex_lock(&dev->lock);
	if (dev->owner == file) {
		/* The early return of a release that finds a session running. */
		if (busy_after_started_close && dev->started)
			dev->held = true;
		if (keep_session_on_close)
			dev->owner = NULL;
		else
			aov_end_session(dev, false);
	}
	mutex_unlock(&dev->lock);
	spin_lock_bh(&dev->qlock);
	dev->open_files--;
	spin_unlock_bh(&dev->qlock);
	kfree(file->private_data);
	return 0;
}

static const struct file_operations aov_fops = {
	.owner = THIS_MODULE,
	.open = aov_open,
	.flush = aov_flush,
	.release = aov_release,
	.unlocked_ioctl = aov_ioctl,
	.poll = aov_poll,
	.llseek = no_llseek,
};

static struct miscdevice aov_misc = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = AOV_DEVICE_NAME,
	.fops = &aov_fops,
	.mode = 0666,
};

static int aov_status_show(struct seq_file *m, void *unused)
{
	struct aov_device *dev = &aov;
	struct aov_counters stats;
	unsigned int open_files, pending;
	u32 sequence;
	bool started;

	spin_lock_bh(&dev->qlock);
	stats = dev->stats;
	started = dev->started;
	open_files = dev->open_files;
	pending = dev->count;
	sequence = dev->sequence;
	spin_unlock_bh(&dev->qlock);

	seq_printf(m, "started %d\nopen_files %u\npending %u\nlast_sequence %u\n",
		   started, open_files, pending, sequence);
	seq_printf(m, "requests %llu\nfailed_requests %llu\nproduced %llu\n",
		   stats.requests, stats.failed_requests, stats.produced);
	seq_printf(m, "dequeued %llu\noverruns %llu\nlost_on_failure %llu\n",
		   stats.dequeued, stats.overruns, stats.lost_on_failure);
	seq_printf(m, "discarded_at_stop %llu\n", stats.discarded_at_stop);
	return 0;
}
DEFINE_SHOW_ATTRIBUTE(aov_status);

static int __init aov_init(void)
{
	int ret;

	mutex_init(&aov.lock);
	spin_lock_init(&aov.qlock);
	init_waitqueue_head(&aov.wq);
	timer_setup(&aov.timer, aov_tick, 0);
	aov.fill = kmalloc(PAGE_SIZE, GFP_KERNEL);
	if (!aov.fill)
		return -ENOMEM;
	ret = misc_register(&aov_misc);
	if (ret) {
		kfree(aov.fill);
		return ret;
	}
	aov.debugfs = debugfs_create_dir(AOV_DEVICE_NAME, NULL);
	debugfs_create_file("status", 0444, aov.debugfs, NULL, &aov_status_fops);
	return 0;
}

static void __exit aov_exit(void)
{
	debugfs_remove_recursive(aov.debugfs);
	misc_deregister(&aov_misc);
	/* A session kept past its last close still ticks. */
	aov_stop_timer(&aov);
	kfree(aov.fill);
}

module_init(aov_init);
module_exit(aov_exit);

MODULE_DESCRIPTION("Reference driver of the AOV event node");
MODULE_LICENSE("Dual MIT/GPL");
