'use strict';
// The card's page: days, the zoomable timeline of a day, playback from a
// clicked moment and MP4 clips, all through the JSON API under /api/.

const $ = (id) => document.getElementById(id);
const SVG = 'http://www.w3.org/2000/svg';
const DAY_SECONDS = 86400;
const MIN_SPAN = 60;              // the closest zoom: one minute across
const ZOOM_STEP = 1.6;
const PLAY_SLACK = 5;             // a click this close before a section plays it
const CLIP_SECONDS = 10;          // default clip length after a click
const CLIP_POLL_MS = 250;
const DRAG_PIXELS = 4;            // less movement than this is a click
const PLOT_LEFT = 8;
const PLOT_RIGHT = 8;
const LANE_LABEL = 13;            // each lane's name stands above its bars
const LANE_HEIGHT = 22;
const LANE_GAP = 6;
const AXIS_HEIGHT = 22;
const RECORDINGS_MARGIN = 0.05;   // room left and right of the recordings when going to them
const TICKS = [1, 5, 10, 30, 60, 300, 600, 1800, 3600, 10800, 21600];
const MAX_TICKS = 12;
const LABEL_HALF_CHAR = 3.5;      // half the width of a label character, in pixels
const LABEL_GAP = 12;             // pixels between two time labels
const AUDIO_NAMES = { aac: 'AAC', g711a: 'G.711 A-law', g711u: 'G.711 \u00b5-law', none: 'none' };
const CODEC_NAMES = { h264: 'H.264', h265: 'H.265' };
// The server cuts a stream its viewer has taken nothing of for 30 s. A
// pause about that long may have outlasted the stream, so playing on after
// it asks for the video anew from the paused moment (before the cut, as the
// browser stops reading a little after the pause).
const STREAM_IDLE_CUT_MS = 25000;
const REMNANT_TEXT = 'older frames of an overwritten lap, recovered from the media data';

const state = {
  lanes: [{ label: 'Recordings', type: 0 }],  // and one per alarm type, named by the card tool
  days: [],
  day: null,          // {day, start, end, sections, events}
  sections: [],
  events: [],
  viewStart: 0,
  viewSpan: DAY_SECONDS,
  moment: null,       // the moment shown by the playhead
  playing: null,      // {section, at}: the video's time 0 is the moment at
  paused: null,       // {moment, since, cut}: where and when the video was paused, and whether its stream ended since
};
// Figures the tests read: the time from a click to the first frame shown,
// and that frame's place in the video (0: the clicked moment itself); the
// time to the first picture of any kind (the key frame before the moment,
// or the moment's frame when it comes first) and the recording's time of
// that picture, as the clock showed it.
// resumes counts the streams asked for anew to play on from where the video
// stood (after a long pause, or a stream that ended early).
window.avrecordStats = {
  clicks: 0, clickToFirstFrameMs: null, firstFrameMediaTime: null, clickToFirstPictureMs: null,
  firstPictureTime: null, keyFramesShown: 0, lastError: null, resumes: 0,
};

async function getJson(url, options) {
  const res = await fetch(url, options);
  const body = await res.json().catch(() => ({ error: res.statusText }));
  if (!res.ok) throw new Error(body.error || res.statusText);
  return body;
}

const pad = (n) => String(n).padStart(2, '0');
const count = (n, noun) => `${n} ${noun}${n === 1 ? '' : 's'}`;
const capitalised = (text) => text.charAt(0).toUpperCase() + text.slice(1);

// ---- the local clock of the shown day ----------------------------------------
// Times are UTC seconds; the page shows them on the local clock of the
// zone the card's tool runs in. The day's clock spans say how far that clock
// is ahead of UTC, and from when: on the day the clocks go back an hour of
// the clock shows twice (its times get the zone's name, "02:30:00 CET"), on
// the day they go forward one never shows.

function clockSpans() {
  return state.day.clock && state.day.clock.length ? state.day.clock : [{ from: state.day.start, offset: 0 }];
}

function spanIndexAt(t) {
  const spans = clockSpans();
  let i = 0;
  while (i + 1 < spans.length && spans[i + 1].from <= t) i++;
  return i;
}

// The end of span i (exclusive).
function spanEnd(i) {
  const spans = clockSpans();
  return i + 1 < spans.length ? spans[i + 1].from : state.day.end;
}

// Seconds since the local midnight as the clock shows them.
function secondsOnClock(t) {
  const local = Math.floor(t) + clockSpans()[spanIndexAt(t)].offset;
  return ((local % DAY_SECONDS) + DAY_SECONDS) % DAY_SECONDS;
}

// The moments of the day at which the clock shows the time of day s.
function momentsOf(s) {
  const spans = clockSpans();
  const midnight = Math.floor((state.day.start + spans[0].offset) / DAY_SECONDS) * DAY_SECONDS;
  const moments = [];
  spans.forEach((span, i) => {
    const t = midnight + s - span.offset;
    if (t >= span.from && t < spanEnd(i)) moments.push({ t, zone: span.zone });
  });
  return moments;
}

function clockText(t, withSeconds = true, withZone = true) {
  if (t >= state.day.end) return withSeconds ? '24:00:00' : '24:00';
  const s = secondsOnClock(t);
  let text = `${pad(Math.floor(s / 3600))}:${pad(Math.floor(s / 60) % 60)}`;
  if (withSeconds) text += `:${pad(s % 60)}`;
  if (withZone && momentsOf(s).length > 1) text += ` ${clockSpans()[spanIndexAt(t)].zone}`;
  return text;
}

// A 24-hour HH:MM[:SS] of the shown day, in the zone named when the clock
// shows that time twice: null for anything else, NaN when the clock never
// shows it (the hour the clocks go forward).
function secondsOfClock(text, zone) {
  const match = /^([01]?\d|2[0-3]):([0-5]\d)(?::([0-5]\d))?$/.exec(text.trim());
  if (!match) return null;
  const moments = momentsOf(Number(match[1]) * 3600 + Number(match[2]) * 60 + Number(match[3] || 0));
  const chosen = moments.length > 1 ? moments.filter((m) => m.zone === zone) : moments;
  return chosen.length ? chosen[0].t : NaN;
}

function dayHours(day) {
  return Math.round((day.end - day.start) / 3600);
}

function megabytes(bytes) {
  return `${(bytes / 1e6).toFixed(1)} MB`;
}

// ---- days ----------------------------------------------------------------

function monthTable(year, month, days) {
  const first = new Date(Date.UTC(year, month - 1, 1));
  const length = new Date(Date.UTC(year, month, 0)).getUTCDate();
  const table = document.createElement('table');
  table.createCaption().textContent = first.toLocaleString('en', { month: 'long', year: 'numeric', timeZone: 'UTC' });
  const head = table.createTHead().insertRow();
  for (const name of ['Mo', 'Tu', 'We', 'Th', 'Fr', 'Sa', 'Su']) head.insertCell().outerHTML = `<th>${name}</th>`;
  const body = table.createTBody();
  let row = body.insertRow();
  for (let i = 0; i < (first.getUTCDay() + 6) % 7; i++) row.insertCell();
  for (let d = 1; d <= length; d++) {
    if (row.cells.length === 7) row = body.insertRow();
    const cell = row.insertCell();
    const key = `${year}-${pad(month)}-${pad(d)}`;
    const day = days.get(key);
    if (!day) {
      cell.textContent = d;
      cell.className = 'empty';
      continue;
    }
    const button = document.createElement('button');
    button.type = 'button';
    button.textContent = d;
    button.dataset.day = key;
    button.title = `${count(day.sections, 'section')}, ${count(day.events, 'alarm event')}`;
    if (day.events > 0) button.classList.add('alarms');
    button.addEventListener('click', () => selectDay(day));
    cell.appendChild(button);
  }
  return table;
}

function drawCalendar() {
  const box = $('calendar');
  box.textContent = '';
  if (state.days.length === 0) {
    box.textContent = 'No recordings on this card.';
    return;
  }
  const byKey = new Map(state.days.map((d) => [d.day, d]));
  const months = [...new Set(state.days.map((d) => d.day.slice(0, 7)))].reverse();
  for (const month of months) {
    const div = document.createElement('div');
    div.className = 'month';
    div.appendChild(monthTable(Number(month.slice(0, 4)), Number(month.slice(5, 7)), byKey));
    box.appendChild(div);
  }
}

async function selectDay(day) {
  state.day = day;
  for (const b of document.querySelectorAll('#calendar button')) b.classList.toggle('selected', b.dataset.day === day.day);
  const range = `from=${day.start}&to=${day.end - 1}`;
  const [sections, events] = await Promise.all([getJson(`/api/sections?${range}`), getJson(`/api/events?${range}`)]);
  if (state.day !== day) return;  // another day was chosen meanwhile
  state.sections = sections.sections;
  state.events = events.events;
  state.viewStart = day.start;
  state.viewSpan = day.end - day.start;
  setUpClipZones();
  const length = dayHours(day) === 24 ? '' : ` (${dayHours(day)} hours)`;
  const remnants = state.sections.filter((s) => s.remnant).length;
  const ofWhich = remnants ? ` (${remnants} of an overwritten lap)` : '';
  $('day-title').textContent = `${day.day}${length}: ${count(state.sections.length, 'section')}${ofWhich}, ` +
    count(state.events.length, 'alarm event');
  $('remnant-legend').hidden = remnants === 0;
  drawTimeline();
}

// ---- timeline --------------------------------------------------------------

function plotWidth() {
  return Math.max(1, $('timeline').clientWidth - PLOT_LEFT - PLOT_RIGHT);
}

function xOf(t) {
  return PLOT_LEFT + ((t - state.viewStart) / state.viewSpan) * plotWidth();
}

function timeAt(x) {
  return state.viewStart + ((x - PLOT_LEFT) / plotWidth()) * state.viewSpan;
}

function svgElement(name, attributes, parent) {
  const element = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  parent.appendChild(element);
  return element;
}

// Top of the bars of a lane; its name stands above them.
function laneY(index) {
  return LANE_GAP + LANE_LABEL + index * (LANE_LABEL + LANE_HEIGHT + LANE_GAP);
}

function drawBar(svg, item, lane, cls, label) {
  const left = Math.max(xOf(item.start), PLOT_LEFT);
  const right = Math.min(xOf(item.end), PLOT_LEFT + plotWidth());
  if (right < PLOT_LEFT || left > PLOT_LEFT + plotWidth()) return;
  const bar = svgElement('rect', { class: cls, x: left, y: laneY(lane), width: Math.max(2, right - left), height: LANE_HEIGHT }, svg);
  bar.dataset.name = item.name;
  bar.dataset.start = item.start;
  bar.dataset.end = item.end;
  svgElement('title', {}, bar).textContent = label;
}

// As many ticks as their labels leave room for: fewer on a narrow screen.
function ticksFit(step) {
  const label = step < 60 ? '00:00:00' : '00:00';
  return Math.min(MAX_TICKS, plotWidth() / (label.length * 2 * LABEL_HALF_CHAR + LABEL_GAP));
}

// Ticks fall on round times of the local clock, span by span, so that a
// 25-hour day shows 25 hours (02 twice) and a 23-hour day 23.
function drawTick(svg, axisY, t, step) {
  const x = xOf(t);
  svgElement('line', { class: 'grid', x1: x, x2: x, y1: 0, y2: axisY }, svg);
  const label = clockText(t, step < 60, false);
  const half = label.length * LABEL_HALF_CHAR;
  if (x - half >= 0 && x + half <= PLOT_LEFT + plotWidth()) {
    svgElement('text', { class: 'tick', x, y: axisY + 14, 'text-anchor': 'middle' }, svg).textContent = label;
  }
}

function drawAxis(svg, axisY) {
  const step = TICKS.find((s) => state.viewSpan / s <= ticksFit(s)) || TICKS[TICKS.length - 1];
  const viewEnd = state.viewStart + state.viewSpan;
  clockSpans().forEach((span, i) => {
    const last = i + 1 === clockSpans().length;
    const from = Math.max(span.from, state.viewStart);
    const to = last ? viewEnd : Math.min(spanEnd(i) - 1, viewEnd);
    for (let local = Math.ceil((from + span.offset) / step) * step; local - span.offset <= to; local += step) {
      drawTick(svg, axisY, local - span.offset, step);
    }
  });
  state.lanes.forEach((lane, i) => {
    svgElement('text', { class: 'lane-label', x: PLOT_LEFT, y: laneY(i) - 3 }, svg).textContent = lane.label;
  });
}

function drawTimeline() {
  const svg = $('timeline');
  svg.textContent = '';
  if (!state.day) return;
  const axisY = laneY(state.lanes.length) - LANE_LABEL;
  svg.style.height = `${axisY + AXIS_HEIGHT}px`;
  drawAxis(svg, axisY);
  for (const s of state.sections) {
    const playing = state.playing && state.playing.section.name === s.name;
    const cls = ['section', playing && 'playing', s.remnant && 'remnant'].filter(Boolean).join(' ');
    const remnant = s.remnant ? `: ${REMNANT_TEXT}` : '';
    drawBar(svg, s, 0, cls,
      `${s.name} ${clockText(s.start)}-${clockText(s.end)}, ${s.width}x${s.height}, ${s.frame_rate} fps${remnant}`);
  }
  for (const e of state.events) {
    const lane = state.lanes.findIndex((l) => l.type === e.type);
    if (lane > 0) drawBar(svg, e, lane, `alarm alarm-type-${e.type}`, `${e.name}: ${eventText(e)}`);
  }
  state.playhead = svgElement('line', { class: 'playhead', y1: 0, y2: axisY, visibility: 'hidden' }, svg);
  movePlayhead();
}

function movePlayhead() {
  if (!state.playhead) return;
  const inView = state.moment !== null && state.moment >= state.viewStart && state.moment <= state.viewStart + state.viewSpan;
  state.playhead.setAttribute('visibility', inView ? 'visible' : 'hidden');
  if (inView) {
    state.playhead.setAttribute('x1', xOf(state.moment));
    state.playhead.setAttribute('x2', xOf(state.moment));
  }
}

// An alarm event in words. Its frame and byte counts are the recorder's:
// they run from the moment the alarm was first seen to the end of the
// event, so the pre-record seconds at its start are not in them.
function eventText(e) {
  return `${capitalised(e.alarm)} ${clockText(e.start)}\u2013${clockText(e.end)}; ` +
    `${e.frames} frames, ${megabytes(e.size)} recorded from the alarm's first sighting on ` +
    '(the pre-record time before it is not counted)';
}

// Shows span seconds with the moment at keeping its place on the screen.
// A closer view that would hold no recording moves to the nearest one
// instead, so zooming in on a short section in a long day finds it.
function zoomTo(span, at) {
  if (!state.day) return;
  const daySpan = state.day.end - state.day.start;
  const newSpan = Math.min(daySpan, Math.max(MIN_SPAN, span));
  const fraction = (at - state.viewStart) / state.viewSpan;
  let start = at - fraction * newSpan;
  const nearest = nearestSection(at);
  if (nearest && !state.sections.some((s) => s.start <= start + newSpan && s.end >= start)) {
    const middle = (Math.max(nearest.start, state.day.start) + Math.min(nearest.end, state.day.end)) / 2;
    start = middle - newSpan / 2;
  }
  state.viewSpan = newSpan;
  panTo(start);
}

function nearestSection(at) {
  const distance = (s) => (at < s.start ? s.start - at : at > s.end ? at - s.end : 0);
  return state.sections.reduce((best, s) => (!best || distance(s) < distance(best) ? s : best), null);
}

// Zooms to the recorded part of the day: from the first section to the last.
function showRecordings() {
  if (!state.day || state.sections.length === 0) return;
  const first = Math.max(state.day.start, Math.min(...state.sections.map((s) => s.start)));
  const last = Math.min(state.day.end, Math.max(...state.sections.map((s) => s.end + 1)));
  const span = Math.max(MIN_SPAN, (last - first) * (1 + 2 * RECORDINGS_MARGIN));
  state.viewSpan = Math.min(state.day.end - state.day.start, span);
  panTo((first + last) / 2 - state.viewSpan / 2);
}

function panTo(start) {
  const latest = state.day.end - state.viewSpan;
  state.viewStart = Math.min(latest, Math.max(state.day.start, start));
  drawTimeline();
}

function viewCentre() {
  return state.moment !== null ? state.moment : state.viewStart + state.viewSpan / 2;
}

// The pointer's x on the timeline (offsetX would count from a bar's edge in
// some browsers).
function timelineX(event) {
  return event.clientX - $('timeline').getBoundingClientRect().left;
}

function setUpTimeline() {
  const svg = $('timeline');
  let drag = null;
  svg.addEventListener('wheel', (event) => {
    event.preventDefault();
    zoomTo(state.viewSpan * (event.deltaY > 0 ? ZOOM_STEP : 1 / ZOOM_STEP), timeAt(timelineX(event)));
  }, { passive: false });
  // Pointer events: a mouse, a pen or a finger (the timeline takes
  // sideways drags, the page still scrolls up and down over it).
  svg.addEventListener('pointerdown', (event) => {
    drag = { x: event.clientX, start: state.viewStart, moved: false };
  });
  window.addEventListener('pointermove', (event) => {
    if (!drag || !state.day) return;
    const dx = event.clientX - drag.x;
    if (Math.abs(dx) >= DRAG_PIXELS) drag.moved = true;
    if (drag.moved) panTo(drag.start - (dx / plotWidth()) * state.viewSpan);
  });
  window.addEventListener('pointercancel', () => { drag = null; });
  window.addEventListener('pointerup', (event) => {
    const click = drag && !drag.moved && event.target.closest('#timeline');
    drag = null;
    const x = timelineX(event);
    if (click && state.day && x >= PLOT_LEFT) play(Math.floor(timeAt(x)));
  });
  for (const button of document.querySelectorAll('#zoom button[data-span]')) {
    button.addEventListener('click', () => zoomTo(Number(button.dataset.span), viewCentre()));
  }
  $('zoom-in').addEventListener('click', () => zoomTo(state.viewSpan / ZOOM_STEP, viewCentre()));
  $('zoom-out').addEventListener('click', () => zoomTo(state.viewSpan * ZOOM_STEP, viewCentre()));
  $('go-recordings').addEventListener('click', showRecordings);
  window.addEventListener('resize', drawTimeline);
}

// ---- playback --------------------------------------------------------------

function sectionAt(at) {
  return state.sections.find((s) => s.start <= at && at <= s.end) ||
    state.sections.find((s) => s.start > at && s.start - at <= PLAY_SLACK);
}

// The alarm events during a section, with what their counts count.
function alarmsDuring(section) {
  const events = state.events.filter((e) => e.start <= section.end && e.end >= section.start);
  if (events.length) return events.map(eventText).join('\n');
  return section.alarms.length ? section.alarms.map(capitalised).join(', ') : 'none';
}

function showDetails(section) {
  $('section-title').textContent = section.remnant ? `${section.name} (remnant)` : section.name;
  const alarms = alarmsDuring(section);
  const rows = [
    ['Time', `${clockText(section.start)} \u2013 ${clockText(section.end)}`],
    ['Resolution', `${section.width} \u00d7 ${section.height}`],
    ['Frame rate', `${section.frame_rate} fps`],
    ['Codec', `${CODEC_NAMES[section.codec] || section.codec}, audio ${AUDIO_NAMES[section.audio] || section.audio}`],
    ['Size', `${megabytes(section.size)}, ${section.frames} frames`],
    ['Alarms', alarms],
  ];
  if (section.remnant) rows.unshift(['Remnant', `${capitalised(REMNANT_TEXT)}; the index does not describe them`]);
  const list = $('details');
  list.textContent = '';
  for (const [name, value] of rows) {
    list.appendChild(document.createElement('dt')).textContent = name;
    const dd = list.appendChild(document.createElement('dd'));
    dd.textContent = value;
    dd.dataset.field = name.toLowerCase().replace(' ', '-');
  }
}

// The clip's fields: a time, and on a day with a repeated hour the zone.
const CLIP_FIELDS = ['clip-from', 'clip-to'];

function setUpClipZones() {
  const zones = dayHours(state.day) > 24 ? [...new Set(clockSpans().map((s) => s.zone))] : [];
  for (const field of CLIP_FIELDS) {
    const select = $(`${field}-zone`);
    select.textContent = '';
    for (const zone of zones) select.appendChild(new Option(zone, zone));
    select.hidden = zones.length === 0;
  }
}

function setClipField(field, t) {
  $(field).value = clockText(t, true, false);
  $(`${field}-zone`).value = clockSpans()[spanIndexAt(t)].zone || '';
}

function clipFieldSeconds(field) {
  return secondsOfClock($(field).value, $(`${field}-zone`).value);
}

function setClipRange(from, to) {
  setClipField('clip-from', from);
  setClipField('clip-to', Math.min(to, state.day.end - 1));
}

async function play(at) {
  const section = sectionAt(at);
  $('play-status').textContent = '';
  if (!section) {
    $('play-status').textContent = `Nothing was recorded at ${clockText(at)}.`;
    return;
  }
  at = Math.max(at, section.start);
  window.avrecordStats.clicks += 1;
  state.moment = at;
  setClipRange(at, at + CLIP_SECONDS - 1);  // both ends included
  const started = streamFrom(section, at);
  try {
    const details = await getJson(`/api/play?at=${at}`);
    if (state.playing.section.name === details.name) {
      state.playing.section = details;
      showDetails(details);
    }
  } catch (error) {
    $('play-status').textContent = error.message;
  }
  drawTimeline();
  await started;
}

// Plays the section from the moment at. The stream starts on the key frame
// before the moment, but its first frame shown is the moment's own: the
// video's time 0 is the moment. Until the video has decoded its way there,
// the key frame is shown, with its own time on the clock.
function streamFrom(section, at) {
  const asked = performance.now();
  const video = $('video');
  const playing = { section, at, keyTime: null, shown: false };
  state.playing = playing;
  state.paused = null;
  $('key-frame').hidden = true;
  Object.assign(window.avrecordStats, { clickToFirstFrameMs: null, clickToFirstPictureMs: null, firstPictureTime: null });
  // Playback starts once the first frame is on the screen: a video told
  // to play at once skips the frames it decoded too late on a busy
  // machine, and the moment's own frame would be one of them.
  video.preload = 'auto';
  video.src = `/api/video?at=${at}`;
  const started = new Promise((resolve) => {
    video.requestVideoFrameCallback((now, frame) => {
      if (state.playing !== playing) return resolve();  // a later stream's frame
      playing.shown = true;
      $('key-frame').hidden = true;
      const ms = performance.now() - asked;
      window.avrecordStats.clickToFirstFrameMs = ms;
      window.avrecordStats.firstFrameMediaTime = frame.mediaTime;
      firstPicture(ms, at + frame.mediaTime);
      return resolve(video.play().catch(() => {}));
    });
  });
  showKeyFrame(playing, asked);
  return started;
}

function firstPicture(ms, time) {
  const stats = window.avrecordStats;
  if (stats.clickToFirstPictureMs !== null) return;
  stats.clickToFirstPictureMs = ms;
  stats.firstPictureTime = time;
}

// The key frame the stream starts on, decoded by the page, over the video
// until the video shows its first frame.
async function showKeyFrame(playing, asked) {
  const unwanted = () => state.playing !== playing || playing.shown;
  const key = await fetchKeyFrame(`/api/video?at=${playing.at}`, unwanted);
  const picture = key && (await decodeKeyFrame(key));
  if (!picture) return;
  if (!unwanted()) {
    // Drawn at the size it is shown, not the recorded one.
    const canvas = $('key-frame');
    canvas.width = Math.round($('video').clientWidth * window.devicePixelRatio);
    canvas.height = Math.round((canvas.width * picture.displayHeight) / picture.displayWidth);
    canvas.getContext('2d').drawImage(picture, 0, 0, canvas.width, canvas.height);
    playing.keyTime = playing.at - key.before;
    showClockNow();
    canvas.hidden = false;
    window.avrecordStats.keyFramesShown += 1;
    firstPicture(performance.now() - asked, playing.keyTime);
  }
  picture.close();
}

// The moment of the recording the video shows.
function shownMoment() {
  return state.playing.at + $('video').currentTime;
}

// Asks for the stream anew from the second holding the moment and plays on.
function resumeFrom(moment) {
  window.avrecordStats.resumes += 1;
  return streamFrom(state.playing.section, Math.floor(moment));
}

// Play after a pause: after a long one the server may have cut the stream,
// so it is asked for anew from the paused moment.
function playOn() {
  const paused = state.paused;
  if (state.playing && paused && (paused.cut || performance.now() - paused.since >= STREAM_IDLE_CUT_MS)) {
    return resumeFrom(paused.moment);
  }
  return $('video').play().catch(() => {});
}

// A stream that ended or failed before the section's end was cut: playback
// goes on from the moment shown last (once Play is pressed, when paused).
// False when nothing was shown since the stream was asked for, so a server
// that is gone is not asked again and again.
function streamCut() {
  if (!state.playing) return false;
  const second = Math.floor(state.paused ? state.paused.moment : shownMoment());
  if (second <= state.playing.at || second >= state.playing.section.end) return false;
  if (state.paused) {
    state.paused.cut = true;
  } else {
    resumeFrom(second);
  }
  return true;
}

// The recording's time of the picture on the screen: the key frame's while
// it stands in for the video.
function pictureTime() {
  const playing = state.playing;
  if (playing.keyTime !== null && !playing.shown) return playing.keyTime;
  return playing.at + $('video').currentTime;
}

function showClockNow() {
  if (state.playing && state.day) {
    const t = pictureTime();
    $('clock').textContent = `${state.day.day} ${clockText(t)}`;
    $('clock').dataset.time = t.toFixed(3);
    state.moment = t;
    movePlayhead();
  }
}

function showClock() {
  showClockNow();
  requestAnimationFrame(showClock);
}

// The video has no seek bar of its own (its stream runs from the clicked
// moment to the section's end and has no length while it comes): the
// timeline seeks, this button pauses and goes on.
function setUpPlayer() {
  const video = $('video');
  const button = $('play-pause');
  button.addEventListener('click', () => (video.paused ? playOn() : video.pause()));
  const label = () => { button.textContent = video.paused ? 'Play' : 'Pause'; };
  video.addEventListener('play', () => {
    label();
    state.paused = null;
  });
  video.addEventListener('pause', () => {
    label();
    if (state.playing && !video.ended) state.paused = { moment: shownMoment(), since: performance.now(), cut: false };
  });
  video.addEventListener('ended', streamCut);
  video.addEventListener('error', () => {
    if (streamCut()) return;
    const error = video.error;
    window.avrecordStats.lastError = error ? `${error.code} ${error.message}` : 'error';
    $('play-status').textContent = `The video cannot be played (${window.avrecordStats.lastError}).`;
  });
  requestAnimationFrame(showClock);
}

// ---- clips -------------------------------------------------------------------

function showClipProgress(job) {
  const progress = $('clip-progress');
  progress.hidden = false;
  progress.value = job.done;
  let text = `${job.state}: ${job.frames} of ${job.frames_total} frames, ${megabytes(job.bytes)}`;
  if (job.seconds_left !== undefined) text += `, about ${Math.ceil(job.seconds_left)} s left`;
  if (job.error) text += ` (${job.error})`;
  $('clip-status').textContent = text;
}

async function makeClip(event) {
  event.preventDefault();
  if (!state.day) return;
  const from = clipFieldSeconds('clip-from');
  const to = clipFieldSeconds('clip-to');
  if (from === null || to === null) {
    $('clip-status').textContent = 'Times are HH:MM:SS on a 24-hour clock.';
    return;
  }
  for (const [t, field] of [[from, 'clip-from'], [to, 'clip-to']]) {
    if (Number.isNaN(t)) {
      $('clip-status').textContent = `${$(field).value} is no time of the clock on ${state.day.day}.`;
      return;
    }
  }
  $('clip-link').hidden = true;
  $('clip-make').disabled = true;
  try {
    let job = await getJson(`/api/clips?from=${from}&to=${to}`, { method: 'POST' });
    while (job.state === 'queued' || job.state === 'working') {
      showClipProgress(job);
      await new Promise((resolve) => setTimeout(resolve, CLIP_POLL_MS));
      job = await getJson(`/api/clips/${job.id}`);
    }
    showClipProgress(job);
    if (job.state === 'done') {
      const link = $('clip-link');
      link.href = job.url;
      link.download = '';
      link.hidden = false;
      link.click();
    }
  } catch (error) {
    $('clip-status').textContent = error.message;
  } finally {
    $('clip-make').disabled = false;
  }
}

// ---- card ----------------------------------------------------------------------

async function showCard() {
  const info = await getJson('/api/info');
  state.lanes = [state.lanes[0], ...info.alarm_types.map((a) => ({ label: capitalised(a.name), type: a.type }))];
  $('card-info').textContent = `${info.files.length} of ${info.file_sum} media files in use`;
  // Served on the camera itself: the recorder's own word on how it is.
  const recorder = await getJson('/api/status').catch(() => null);
  if (recorder) {
    const since = new Date(recorder.since * 1000).toISOString().slice(0, 19).replace('T', ' ');
    $('card-info').textContent += `; recorder ${recorder.state} since ${since} UTC` +
      (recorder.frames_lost ? `, ${count(recorder.frames_lost, 'frame')} lost` : '');
  }
}

async function checkCard() {
  $('check-result').textContent = 'checking\u2026';
  try {
    const check = await getJson('/api/check');
    $('check-result').textContent = check.consistent ? 'index consistent' :
      `${check.problems.length} problems: ${check.problems[0]}`;
  } catch (error) {
    $('check-result').textContent = error.message;
  }
}

async function start() {
  setUpTimeline();
  setUpPlayer();
  $('clip').addEventListener('submit', makeClip);
  $('check').addEventListener('click', checkCard);
  try {
    await showCard();
    state.days = (await getJson('/api/days')).days;
    drawCalendar();
    if (state.days.length) await selectDay(state.days[state.days.length - 1]);
  } catch (error) {
    $('day-title').textContent = error.message;
  }
}

start();
