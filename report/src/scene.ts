// What is drawn of reciprocal space, and two ways to draw it.

import { Geometry, Mesh, Program, Renderer } from 'ogl';
import type { Camera } from './camera';
import type { Rgb } from './theme';
import { cssColour } from './theme';

/** Points by columns. A size of 0 hides a point; hollow ones are rings. */
export interface Points {
    place: Float32Array;
    colour: Float32Array;
    size: Float32Array;
    hollow: Float32Array;
}

/** Pairs of places. */
export interface Lines {
    place: Float32Array;
    colour: Rgb;
    opacity: number;
}

export interface Scene {
    points: Points[];
    lines: Lines[];
    /** Triangles; drawn with WebGL alone. */
    surfaces: Lines[];
    paper: Rgb;
}

export interface Painter {
    readonly canvas: HTMLCanvasElement;
    /** Takes the scene anew; what changed in its columns is seen then. */
    load(scene: Scene): void;
    draw(camera: Camera, width: number, height: number): void;
}

const kVertex = `
attribute vec3 position;
attribute vec3 colour;
attribute float size;
attribute float hollow;
uniform mat3 view;
uniform vec2 reach;
uniform float depth;
uniform float zoom;
varying vec3 vColour;
varying float vHollow;
varying float vSize;
varying float vFade;
void main() {
    vec3 seen = view * position;
    gl_Position = vec4(seen.xy * reach, -seen.z * depth, 1.0);
    vFade = clamp(0.5 + 0.5 * seen.z * depth, 0.0, 1.0);
    gl_PointSize = size * zoom;
    vSize = size * zoom;
    vColour = colour;
    vHollow = hollow;
    if (size <= 0.0) gl_Position = vec4(2.0, 2.0, 2.0, 1.0);
}`;

const kFragment = `
precision mediump float;
uniform vec3 paper;
varying vec3 vColour;
varying float vHollow;
varying float vSize;
varying float vFade;
void main() {
    float away = length(gl_PointCoord - 0.5) * 2.0;
    float soft = min(0.5, 1.5 / max(vSize, 1.0));
    float inside = 1.0 - smoothstep(1.0 - soft, 1.0, away);
    float hole = vHollow * (1.0 - smoothstep(0.5 - soft, 0.5, away));
    float cover = inside - hole;
    if (cover < 0.1) discard;
    gl_FragColor = vec4(mix(paper, vColour, 0.45 + 0.55 * vFade), cover);
}`;

const kLineVertex = `
attribute vec3 position;
uniform mat3 view;
uniform vec2 reach;
uniform float depth;
void main() {
    vec3 seen = view * position;
    gl_Position = vec4(seen.xy * reach, -seen.z * depth, 1.0);
}`;

const kLineFragment = `
precision mediump float;
uniform vec3 colour;
uniform float opacity;
void main() { gl_FragColor = vec4(colour, opacity); }`;

/** Draws with WebGL. */
export class WebGlPainter implements Painter {
    readonly canvas: HTMLCanvasElement;
    private readonly renderer: Renderer;
    private readonly pointProgram: Program;
    private meshes: Mesh[] = [];
    private scene: Scene | null = null;

    /** Throws where there is no WebGL. */
    constructor(canvas: HTMLCanvasElement) {
        this.canvas = canvas;
        const probe = document.createElement('canvas');
        if (!probe.getContext('webgl2') && !probe.getContext('webgl')) throw new Error('no WebGL');
        this.renderer = new Renderer({ canvas, antialias: true, alpha: false, dpr: 1, preserveDrawingBuffer: true });
        this.freeSize();
        const { gl } = this.renderer;
        this.pointProgram = new Program(gl, {
            vertex: kVertex, fragment: kFragment, transparent: true,
            uniforms: { view: { value: new Array(9).fill(0) }, reach: { value: [1, 1] }, depth: { value: 1 },
                        zoom: { value: 1 }, paper: { value: [1, 1, 1] } },
        });
    }

    /** The size in the page is that of the style sheet. */
    private freeSize(): void {
        this.canvas.style.width = '';
        this.canvas.style.height = '';
    }

    load(scene: Scene): void {
        const { gl } = this.renderer;
        for (const mesh of this.meshes) mesh.geometry.remove();
        this.scene = scene;
        this.meshes = [...scene.surfaces.map((surface) => this.plain(surface, gl.TRIANGLES)),
            ...scene.lines.map((lines) => this.plain(lines, gl.LINES))];
        for (const points of scene.points)
            this.meshes.push(new Mesh(gl, {
                mode: gl.POINTS, frustumCulled: false, program: this.pointProgram,
                geometry: new Geometry(gl, {
                    position: { size: 3, data: points.place }, colour: { size: 3, data: points.colour },
                    size: { size: 1, data: points.size }, hollow: { size: 1, data: points.hollow },
                }),
            }));
    }

    /** A mesh of one colour. */
    private plain(shape: Lines, mode: number): Mesh {
        const { gl } = this.renderer;
        const { view, reach, depth } = this.pointProgram.uniforms;
        return new Mesh(gl, {
            mode, frustumCulled: false,
            geometry: new Geometry(gl, { position: { size: 3, data: shape.place } }),
            program: new Program(gl, {
                vertex: kLineVertex, fragment: kLineFragment, transparent: true, depthWrite: false, cullFace: false,
                uniforms: { view, reach, depth, colour: { value: shape.colour }, opacity: { value: shape.opacity } },
            }),
        });
    }

    draw(camera: Camera, width: number, height: number): void {
        if (!this.scene || width < 1 || height < 1) return;
        const density = Math.min(2, window.devicePixelRatio || 1);
        const { renderer } = this;
        if (renderer.width !== width || renderer.height !== height || renderer.dpr !== density) {
            renderer.dpr = density;
            renderer.setSize(width, height);
            this.freeSize();
        }
        const { uniforms } = this.pointProgram;
        const { right, up, toViewer } = camera;
        uniforms.view.value = [right[0], up[0], toViewer[0], right[1], up[1], toViewer[1], right[2], up[2], toViewer[2]];
        const pixels = camera.pixels(width, height);
        uniforms.reach.value = [(2 * pixels) / width, (2 * pixels) / height];
        uniforms.depth.value = 0.5 / camera.radius;
        uniforms.zoom.value = density * Math.pow(camera.zoom, 0.6);
        uniforms.paper.value = this.scene.paper;
        const { gl } = renderer;
        gl.clearColor(...this.scene.paper, 1);
        renderer.bindFramebuffer();
        gl.clear(gl.COLOR_BUFFER_BIT | gl.DEPTH_BUFFER_BIT);
        renderer.setViewport(width * density, height * density);
        for (const mesh of this.meshes) mesh.draw();
    }
}

/** Draws without WebGL. */
export class CanvasPainter implements Painter {
    private scene: Scene | null = null;

    constructor(readonly canvas: HTMLCanvasElement) {}

    load(scene: Scene): void {
        this.scene = scene;
    }

    draw(camera: Camera, width: number, height: number): void {
        const context = this.canvas.getContext('2d');
        if (!context || !this.scene) return;
        const density = Math.min(2, window.devicePixelRatio || 1);
        this.canvas.width = Math.round(width * density);
        this.canvas.height = Math.round(height * density);
        context.scale(density, density);
        context.fillStyle = cssColour(this.scene.paper);
        context.fillRect(0, 0, width, height);
        for (const lines of this.scene.lines) this.drawLines(context, lines, camera, width, height);
        for (const points of this.scene.points) this.drawPoints(context, points, camera, width, height);
    }

    private drawLines(context: CanvasRenderingContext2D, lines: Lines, camera: Camera, width: number, height: number): void {
        context.strokeStyle = cssColour(lines.colour);
        context.globalAlpha = lines.opacity;
        context.beginPath();
        for (let i = 0; i < lines.place.length; i += 6) {
            const from = camera.project([lines.place[i], lines.place[i + 1], lines.place[i + 2]], width, height);
            const to = camera.project([lines.place[i + 3], lines.place[i + 4], lines.place[i + 5]], width, height);
            context.moveTo(from[0], from[1]);
            context.lineTo(to[0], to[1]);
        }
        context.stroke();
        context.globalAlpha = 1;
    }

    private drawPoints(context: CanvasRenderingContext2D, points: Points, camera: Camera, width: number, height: number): void {
        const zoom = Math.pow(camera.zoom, 0.6);
        for (let i = 0; i < points.size.length; ++i) {
            const size = points.size[i] * zoom;
            if (size <= 0) continue;
            const at = camera.project([points.place[3 * i], points.place[3 * i + 1], points.place[3 * i + 2]], width, height);
            const colour = cssColour([points.colour[3 * i], points.colour[3 * i + 1], points.colour[3 * i + 2]]);
            context.beginPath();
            context.arc(at[0], at[1], 0.5 * size, 0, 2 * Math.PI);
            if (points.hollow[i] > 0) {
                context.strokeStyle = colour;
                context.stroke();
            } else {
                context.fillStyle = colour;
                context.fill();
            }
        }
    }
}
