'use strict';
// The key frame at once. A clicked moment's stream starts on the key frame
// before the moment, and the video shows nothing until it has decoded every
// frame up to the moment. The key frame itself lies in the stream's first
// few kilobytes: keyFrameOf finds it in the fragmented MP4 as it arrives,
// and decodeKeyFrame decodes it alone (WebCodecs), so the page can show it,
// with its own time, until the moment's frame replaces it.

const BOX_HEADER = 8;
const FULL_BOX_HEADER = BOX_HEADER + 4;       // version and flags
const VISUAL_SAMPLE_ENTRY_SIZE = BOX_HEADER + 78;
const TFHD_BASE_DATA_OFFSET = 0x1;
const TFHD_SAMPLE_DESCRIPTION = 0x2;
const TFHD_DEFAULT_DURATION = 0x8;
const TFHD_DEFAULT_SIZE = 0x10;
const TRUN_DATA_OFFSET = 0x1;
const TRUN_FIRST_SAMPLE_FLAGS = 0x4;
const TRUN_SAMPLE_DURATION = 0x100;
const TRUN_SAMPLE_SIZE = 0x200;

// The boxes from start to end: [{type, start, end, body}]; a box cut short
// by the end of what has arrived is left out.
function boxesIn(view, start, end) {
  const boxes = [];
  for (let at = start; at + BOX_HEADER <= end;) {
    const size = view.getUint32(at);
    const type = String.fromCharCode(...new Uint8Array(view.buffer, view.byteOffset + at + 4, 4));
    if (size < BOX_HEADER || at + size > end) break;
    boxes.push({ type, start: at, end: at + size, body: at + BOX_HEADER });
    at += size;
  }
  return boxes;
}

function child(view, box, type) {
  return boxesIn(view, box.body, box.end).find((b) => b.type === type);
}

function path(view, box, types) {
  return types.reduce((b, type) => b && child(view, b, type), box);
}

const hex2 = (n) => n.toString(16).padStart(2, '0');

// The video track of the stream's header: its id, time scale, where the
// shown part starts (the edit list) and what a decoder needs.
function videoTrackOf(view, moov) {
  for (const trak of boxesIn(view, moov.body, moov.end).filter((b) => b.type === 'trak')) {
    const hdlr = path(view, trak, ['mdia', 'hdlr']);
    if (!hdlr || view.getUint32(hdlr.body + 8) !== 0x76696465) continue;  // 'vide'
    const tkhd = child(view, trak, 'tkhd');
    const mdhd = path(view, trak, ['mdia', 'mdhd']);
    const elst = path(view, trak, ['edts', 'elst']);
    const stsd = path(view, trak, ['mdia', 'minf', 'stbl', 'stsd']);
    const entry = boxesIn(view, stsd.body + 8, stsd.end)[0];
    const avcC = entry && entry.type === 'avc1' &&
      boxesIn(view, entry.start + VISUAL_SAMPLE_ENTRY_SIZE, entry.end).find((b) => b.type === 'avcC');
    if (!avcC) return null;  // other codecs wait for the video
    const wide = (box) => view.getUint8(box.body) === 1;
    const description = new Uint8Array(view.buffer, view.byteOffset + avcC.body, avcC.end - avcC.body).slice();
    return {
      id: view.getUint32(tkhd.body + (wide(tkhd) ? 20 : 12)),
      timescale: view.getUint32(mdhd.body + (wide(mdhd) ? 20 : 12)),
      shownFrom: elst ? (wide(elst) ? Number(view.getBigInt64(elst.body + 16)) : view.getInt32(elst.body + 12)) : 0,
      config: {
        codec: `avc1.${hex2(description[1])}${hex2(description[2])}${hex2(description[3])}`,
        codedWidth: view.getUint16(entry.body + 24),
        codedHeight: view.getUint16(entry.body + 26),
        description,
      },
    };
  }
  return null;
}

// Where the track's first sample of a fragment lies, and its decode time.
function firstSampleOf(view, moof, track) {
  for (const traf of boxesIn(view, moof.body, moof.end).filter((b) => b.type === 'traf')) {
    const tfhd = child(view, traf, 'tfhd');
    if (!tfhd || view.getUint32(tfhd.body + 4) !== track.id) continue;
    const flags = view.getUint32(tfhd.body) & 0xffffff;
    let at = tfhd.body + 8;
    let base = moof.start;
    if (flags & TFHD_BASE_DATA_OFFSET) {
      base = Number(view.getBigUint64(at));
      at += 8;
    }
    if (flags & TFHD_SAMPLE_DESCRIPTION) at += 4;
    if (flags & TFHD_DEFAULT_DURATION) at += 4;
    let size = flags & TFHD_DEFAULT_SIZE ? view.getUint32(at) : 0;
    const trun = child(view, traf, 'trun');
    const tfdt = child(view, traf, 'tfdt');
    const runFlags = view.getUint32(trun.body) & 0xffffff;
    at = trun.body + 8;
    const offset = runFlags & TRUN_DATA_OFFSET ? view.getInt32(at) : 0;
    if (runFlags & TRUN_DATA_OFFSET) at += 4;
    if (runFlags & TRUN_FIRST_SAMPLE_FLAGS) at += 4;
    if (runFlags & TRUN_SAMPLE_DURATION) at += 4;
    if (runFlags & TRUN_SAMPLE_SIZE) size = view.getUint32(at);
    const decodeTime = !tfdt ? 0 : view.getUint8(tfdt.body) === 1 ? Number(view.getBigUint64(tfdt.body + 4))
      : view.getUint32(tfdt.body + 4);
    return { start: base + offset, size, decodeTime };
  }
  return null;
}

// The stream's first key frame once its bytes have arrived: {config, data,
// before} with before the seconds from it to the stream's shown start;
// null while more is needed, false when it cannot be decoded here.
function keyFrameOf(bytes) {
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  const top = boxesIn(view, 0, bytes.length);
  const moov = top.find((b) => b.type === 'moov');
  const moof = top.find((b) => b.type === 'moof');
  if (!moov || !moof) return null;
  const track = videoTrackOf(view, moov);
  const sample = track && firstSampleOf(view, moof, track);
  if (!sample) return false;
  if (sample.start + sample.size > bytes.length) return null;
  return {
    config: track.config,
    data: bytes.slice(sample.start, sample.start + sample.size),
    before: (track.shownFrom - sample.decodeTime) / track.timescale,
  };
}

// One decoder for the key frames, kept configured between clicks (a stream
// of the same section needs no new one); decodes run one at a time.
const keyDecoding = { decoder: null, id: '', picture: null, queue: Promise.resolve(null) };

async function keyDecoderFor(config) {
  const id = `${config.codec} ${config.codedWidth}x${config.codedHeight} ${config.description.join(',')}`;
  const kept = keyDecoding.decoder;
  if (kept && kept.state === 'configured' && keyDecoding.id === id) return kept;
  if (kept && kept.state !== 'closed') kept.close();
  keyDecoding.decoder = null;
  if (typeof VideoDecoder === 'undefined' || !(await VideoDecoder.isConfigSupported(config)).supported) return null;
  const decoder = new VideoDecoder({
    output: (frame) => {
      if (keyDecoding.picture) keyDecoding.picture.close();
      keyDecoding.picture = frame;
    },
    error: () => {},
  });
  decoder.configure(config);
  Object.assign(keyDecoding, { decoder, id });
  return decoder;
}

async function decodeOne(key) {
  const decoder = await keyDecoderFor(key.config);
  if (!decoder) return null;
  decoder.decode(new EncodedVideoChunk({ type: 'key', timestamp: 0, data: key.data }));
  await decoder.flush();
  const picture = keyDecoding.picture;
  keyDecoding.picture = null;
  return picture;
}

// Decodes the key frame alone; resolves to a VideoFrame (the caller closes
// it), or null where this browser cannot decode it.
function decodeKeyFrame(key) {
  const decoded = keyDecoding.queue.then(() => decodeOne(key)).catch(() => null);
  keyDecoding.queue = decoded;
  return decoded;
}

// Reads the stream at url until its first key frame is there; null when it
// cannot be shown here or stop() says it is not wanted any more.
async function fetchKeyFrame(url, stop) {
  const abort = new AbortController();
  try {
    const reader = (await fetch(url, { signal: abort.signal })).body.getReader();
    let bytes = new Uint8Array(0);
    for (;;) {
      const { done, value } = await reader.read();
      if (done || stop()) return null;
      const grown = new Uint8Array(bytes.length + value.length);
      grown.set(bytes);
      grown.set(value, bytes.length);
      bytes = grown;
      const key = keyFrameOf(bytes);
      if (key !== null) return key || null;
    }
  } catch {
    return null;
  } finally {
    abort.abort();
  }
}
