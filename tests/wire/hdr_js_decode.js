// The wire checks' JavaScript side: npm's hdr-histogram-js decodes one
// histogram encoding per input line (output as hdr_wire_tool decode).
//   node hdr_js_decode.js MODULE_DIR < lines
const hdr = require(process.argv[2]);
const lines = require('fs').readFileSync(0, 'utf8').split('\n').filter((l) => l.length > 0);
const out = lines.map((line) => {
  try {
    const h = hdr.decodeFromCompressedBase64(line.trim(), 64, false);
    const total = h.totalCount;
    const minNonZero = total === 0 || h.minNonZeroValue >= Number.MAX_SAFE_INTEGER ? 0 : h.minNonZeroValue;
    const fields = [total, minNonZero, h.maxValue];
    if (total > 0) {
      for (let p = 1; p <= 100; p++) fields.push(h.getValueAtPercentile(p));
      fields.push(h.getValueAtPercentile(0.1), h.getValueAtPercentile(99.9));
    }
    return fields.join(' ');
  } catch (e) {
    return 'error ' + e;
  }
});
process.stdout.write(out.join('\n') + '\n');
