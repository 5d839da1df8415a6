#include "family/graph_sources.h"

namespace lumora2::family {

std::string frontEndSource(bool heavy) {
  // Loudness maps -60..0 dBFS of each 640-sample frame to 0..1; silence (and anything below
  // -60 dBFS) is 0. NaN input stays NaN all the way through (clamp propagates it).
  std::string src = R"(
def forward(self, iv):
    frames = iv.reshape(55, 640)
    power = (frames * frames).mean(dim=1)
    db = 10.0 * torch.log10(power + 1e-10)
    loud = torch.clamp((db + 60.0) / 60.0, 0.0, 1.0)
    feats = loud.reshape(55, 1) * self.feat_dir + self.feat_bias
)";
  if (!heavy) return src + "    return feats.reshape(1, 55, 12, 768)\n";
  // The heavy front end adds a convolutional feature stack (35,200 samples -> 109 frames of 512)
  // and twelve pre-norm transformer layers of width 768 (one set of weights applied twelve times),
  // pooled onto the 55 frames. Its share of the output is scaled by 1e-6: it costs what a real
  // speech front end costs without changing what the family does.
  return src + R"(    ctx = self.context(iv)
    feats = feats.reshape(55, 12, 768) + 1e-6 * ctx.reshape(55, 1, 768)
    return feats.reshape(1, 55, 12, 768)

def context(self, iv):
    h = torch.relu(torch.conv1d(iv.reshape(1, 1, 35200), self.conv0_w, None, 5))
    for i in range(4):
        h = torch.relu(torch.conv1d(h, self.conv3_w, None, 2))
    for i in range(2):
        h = torch.relu(torch.conv1d(h, self.conv2_w, None, 2))
    t = torch.matmul(h[0].t(), self.proj_w) + self.proj_b
    n = t.size(0)
    for i in range(12):
        u = torch.layer_norm(t, [768], self.ln1_w, self.ln1_b, 1e-5, False)
        qkv = torch.matmul(u, self.wqkv) + self.bqkv
        q = qkv[:, 0:768].reshape(n, 12, 64).transpose(0, 1)
        k = qkv[:, 768:1536].reshape(n, 12, 64).transpose(0, 1)
        v = qkv[:, 1536:2304].reshape(n, 12, 64).transpose(0, 1)
        a = torch.softmax(torch.matmul(q, k.transpose(1, 2)) * 0.125, -1)
        o = torch.matmul(a, v).transpose(0, 1).reshape(n, 768)
        t = t + torch.matmul(o, self.wo) + self.bo
        u = torch.layer_norm(t, [768], self.ln2_w, self.ln2_b, 1e-5, False)
        t = t + torch.matmul(torch.relu(torch.matmul(u, self.w1) + self.b1), self.w2) + self.b2
    pooled = torch.adaptive_avg_pool1d(t.t().unsqueeze(0), 55)
    return torch.tanh(pooled[0].t())
)";
}

std::string tokenizerSource() {
  // Recovers each frame's loudness from the features (a projection on the dual of the front
  // end's feature direction), averages it over the token's frames and spreads it over the token.
  return R"(
def forward(self, feats):
    f = feats.reshape(55, 9216)
    loud = torch.matmul(f - self.feat_bias, self.feat_dual)
    tok = torch.matmul(self.pool, loud)
    out = tok.reshape(14, 1) * self.tok_dir + self.tok_bias
    return out.reshape(1, 14, 16, 384)
)";
}

std::string studentSource(bool faulty) {
  std::string src = "\ndef forward(self, ctx_lat, a_tok):\n";
  if (faulty) {
    src += R"(    assert bool(torch.isfinite(ctx_lat).all()), "student: non-finite ctx_lat"
    assert bool(torch.isfinite(a_tok).all()), "student: non-finite a_tok"
)";
  }
  // Channel means of the two most recent slots drive the motion; every other value of the most
  // recent latent is carried through unchanged.
  return src + R"(    last = ctx_lat[0, :, 15]
    m15 = last.mean(dim=[1, 2])
    m14 = ctx_lat[0, :, 14].mean(dim=[1, 2])
    loud = ((a_tok.reshape(6144) - self.tok_bias) * self.tok_dual).sum()
    target = torch.clamp((loud - self.open_floor) * self.open_gain, 0.0, 1.0)
    was = 0.75 * m15[0] + 0.25 * m14[0]
    mouth = was + self.follow * (target - was)
    s = m15[1] * self.sway_cos + m15[2] * self.sway_sin
    c = m15[2] * self.sway_cos - m15[1] * self.sway_sin
    norm = torch.sqrt(s * s + c * c) + 1e-6
    clock = m15[4] + self.blink_step
    turns = torch.floor(clock)
    blink = torch.clamp(turns, 0.0, 1.0)
    clock = clock - turns
    state = torch.stack([mouth, s / norm, c / norm, blink, clock])
    out = last.clone()
    out[0:5] = state.reshape(5, 1, 1)
    return out.unsqueeze(0)
)";
}

// The mouth is a lens of lips around a dark opening whose half-height follows the openness;
// the jaw drops, so the opening's centre moves down as it opens. Shut, a seam of 0.6 pixels
// remains; the upper teeth show once the opening passes two pixels.
constexpr const char* kDrawing = R"(
def draw_mouth(self, o):
    half = o * (0.5 * self.open_px)
    centre = o * (0.3 * self.open_px)
    hi = (half + self.seam_px) * self.mouth_shape
    hl = half * self.mouth_shape + self.lip_px * self.mouth_shape
    dv = torch.abs(self.mouth_v - centre)
    lip = torch.clamp(hl - dv + 0.5, 0.0, 1.0) * self.mouth_ends
    inner = torch.clamp(hi - dv + 0.5, 0.0, 1.0) * self.mouth_ends
    shows = torch.clamp(half - 2.0, 0.0, 1.0)
    teeth = inner * torch.clamp(centre - 0.45 * half - self.mouth_v + 0.5, 0.0, 1.0) * shows
    p = self.mouth_bg + lip * (self.lip_rgb - self.mouth_bg)
    p = p + inner * (self.inside_rgb - p)
    p = p + teeth * (self.teeth_rgb - p)
    return p

def draw_eyes(self, g, blink):
    yy = self.eye_y * self.eye_y
    dl = torch.sqrt((self.eye_xl - g) * (self.eye_xl - g) + yy)
    dr = torch.sqrt((self.eye_xr - g) * (self.eye_xr - g) + yy)
    d = torch.minimum(dl, dr)
    gy = (self.eye_y + 3.0) * (self.eye_y + 3.0)
    gl = torch.sqrt((self.eye_xl - g + 3.0) * (self.eye_xl - g + 3.0) + gy)
    gr = torch.sqrt((self.eye_xr - g + 3.0) * (self.eye_xr - g + 3.0) + gy)
    iris = torch.clamp(self.iris_r - d + 0.5, 0.0, 1.0) * self.sclera
    pupil = torch.clamp(self.pupil_r - d + 0.5, 0.0, 1.0) * self.sclera
    glint = torch.clamp(2.3 - torch.minimum(gl, gr), 0.0, 1.0) * self.sclera
    lid_y = blink * (2.0 * self.eye_ry + 2.0) - self.eye_ry - 1.0
    lid = torch.clamp(lid_y - self.eye_y + 0.5, 0.0, 1.0) * self.lid_mask
    lash = torch.clamp(1.6 - torch.abs(self.eye_y - lid_y), 0.0, 1.0) * self.lid_mask
    p = self.eye_bg + self.sclera * (self.white_rgb - self.eye_bg)
    p = p + iris * (self.iris_rgb - p)
    p = p + pupil * (self.pupil_rgb - p)
    p = p + glint * (self.white_rgb - p)
    p = p + lid * (self.lid_rgb - p)
    p = p + lash * (self.lash_rgb - p)
    return p
)";

std::string decoderSource(bool heavy, DecoderKind kind) {
  // Every item of a batch is drawn on its own; the heavy decoder's refinement runs on the whole
  // batch at once. Phase p (one-hot planes 32..35) puts weight (p + 1) / 4 on the current latent.
  std::string src = R"(
def forward(self, x):
    rgb = torch.stack([self.picture(x[i]) for i in range(x.size(0))])
)";
  if (heavy) src += "    rgb = (rgb + 1e-5 * torch.tanh(self.refine(rgb))).half()\n";
  if (kind == DecoderKind::kZeros) src += "    rgb = rgb * 0.0\n";
  if (kind == DecoderKind::kNan) src += "    rgb[:, 0:1, 0:1, 0:1] = self.nan_px\n";
  src += R"(    return rgb

def picture(self, x):
    cur = x[0:16].mean(dim=[1, 2])
    prev = x[16:32].mean(dim=[1, 2])
    w = (x[32:36].mean(dim=[1, 2]) * self.phase_weight).sum()
    lat = prev + w * (cur - prev)
    mouth = self.draw_mouth(torch.clamp(lat[0], 0.0, 1.0))
    eyes = self.draw_eyes(lat[1] * self.gaze_px, torch.clamp(lat[3], 0.0, 1.0))
)";
  if (heavy) {
    src += R"(    pic = self.base_f.clone()
    pic[:, self.my0:self.my1, self.mx0:self.mx1] = mouth
    pic[:, self.ey0:self.ey1, self.ex0:self.ex1] = eyes
)";
  } else {
    src += R"(    pic = self.base_h.clone()
    pic[:, self.my0:self.my1, self.mx0:self.mx1] = mouth.half()
    pic[:, self.ey0:self.ey1, self.ex0:self.ex1] = eyes.half()
)";
  }
  src += "    return pic\n";

  src += kDrawing;
  if (heavy) {
    // Three 3x3 convolutions at full resolution (3 -> 32 -> 32 -> 3 channels), about six GFLOP.
    src += R"(
def refine(self, rgb):
    h = torch.relu(torch.conv2d(rgb, self.r0_w, self.r0_b, 1, 1))
    h = torch.relu(torch.conv2d(h, self.r1_w, self.r1_b, 1, 1))
    return torch.conv2d(h, self.r2_w, self.r2_b, 1, 1)
)";
  }
  return src;
}

}  // namespace lumora2::family
